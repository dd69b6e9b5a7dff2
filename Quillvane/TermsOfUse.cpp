#include "TermsOfUse.h"

#include "Preferences.h"

namespace {

const QString acceptedVersionKey =
    Preferences::keyOf(QStringLiteral("quillvane.acceptedTermsVersion"));
/// Raised when the terms change; everybody is asked again then.
const QString presentVersion = QStringLiteral("2");

} // namespace

TermsOfUse::TermsOfUse(QSettings& preferences, QObject* parent)
    : QObject(parent), preferences_(preferences) {}

bool TermsOfUse::accepted() const {
    return preferences_.value(acceptedVersionKey).toString() == presentVersion;
}

QUrl TermsOfUse::address() const {
    return QUrl(QStringLiteral("https://quillvane.org/terms"));
}

void TermsOfUse::accept() {
    preferences_.setValue(acceptedVersionKey, presentVersion);
    preferences_.sync();
    emit acceptedChanged();
}
