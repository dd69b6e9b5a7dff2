#include "Quillvane/Preferences.h"

std::unique_ptr<QSettings> Preferences::open() {
    return std::make_unique<QSettings>(QStringLiteral("Quillvane"), QStringLiteral("Quillvane"));
}

QString Preferences::keyOf(const QString& name) {
    return name;
}
