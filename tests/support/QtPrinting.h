#pragma once

#include <QString>
#include <QUrl>

#include <ostream>

/// So that failed expectations can be read.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QUrl& url, std::ostream* out) {
    *out << url.toEncoded().toStdString();
}
