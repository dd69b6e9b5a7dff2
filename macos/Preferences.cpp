#include "Quillvane/Preferences.h"

std::unique_ptr<QSettings> Preferences::open() {
    // The user defaults of the application, "org.quillvane.Quillvane", for the terminal companion,
    // too, which has no bundle.
    return std::make_unique<QSettings>(QStringLiteral("quillvane.org"),
                                       QStringLiteral("Quillvane"));
}

QString Preferences::keyOf(const QString& name) {
    // QSettings puts dots where it is given slashes, and another sign for dots.
    return QString(name).replace('.', '/');
}
