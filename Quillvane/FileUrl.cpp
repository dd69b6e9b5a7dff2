#include "FileUrl.h"

#include <QByteArray>

#include <string>

std::filesystem::path filePath(const QUrl& url) {
    if (!url.isValid() || url.scheme() != QLatin1String("file")) return {};
    if (url.hasQuery() || url.hasFragment()) return {};
    const QString authority = url.authority();
    if (!authority.isEmpty() && authority != QLatin1String("localhost")) return {};
    const QByteArray encoded = url.path(QUrl::FullyEncoded).toLatin1();
    // No name has these characters: decoded, they would make it another file's path.
    if (encoded.contains("%00") || encoded.contains("%2F")) return {};
    // Not url.toLocalFile(): text conversion would lose bytes that are not UTF-8.
    const QByteArray path = QByteArray::fromPercentEncoding(encoded);
    return path.startsWith('/') ? path.toStdString() : std::string();
}

QUrl fileUrl(const std::filesystem::path& path) {
    const std::string bytes = std::filesystem::absolute(path).string();
    const QByteArray encoded = QByteArray::fromStdString(bytes).toPercentEncoding("/");
    return QUrl::fromEncoded("file://" + encoded, QUrl::StrictMode);
}
