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
    if (!text.isEmpty() && text.isDetached())
        OPENSSL_cleanse(text.data(), static_cast<std::size_t>(text.size()) * sizeof(QChar));
    text.clear();
}
