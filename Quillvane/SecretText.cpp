#include "SecretText.h"

#include <QStringEncoder>

#include <openssl/crypto.h>

#include <string_view>

Secret secretOf(const QString& text) {
    QStringEncoder encode(QStringEncoder::Utf8);
    Secret room(static_cast<std::size_t>(encode.requiredSpace(text.size())));
    char* const begin = reinterpret_cast<char*>(room.writable().data());
    const char* const end = encode.appendToBuffer(begin, text);
    return Secret(std::string_view(begin, end));
}

QString textOf(const Secret& secret) {
    return QString::fromUtf8(secret.text().data(), static_cast<qsizetype>(secret.size()));
}

void wipeText(QString& text) {
    // In place: the window's fields and their bindings share the characters, and forget them later.
    // A text without a header of its own is a constant of the program.
    if (!text.isEmpty() && text.data_ptr().d_ptr() != nullptr)
        OPENSSL_cleanse(const_cast<QChar*>(text.constData()),
                        static_cast<std::size_t>(text.size()) * sizeof(QChar));
    text.clear();
}
