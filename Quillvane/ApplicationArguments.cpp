#include "ApplicationArguments.h"

#include "FileUrl.h"

#include <QByteArray>

#include <string>
#include <string_view>

namespace {

bool looksLikeUrl(std::string_view word) {
    return QByteArray(word.data(), word.size()).left(5).toLower() == "file:";
}

} // namespace

QList<QUrl> itemsInArguments(std::span<const char* const> words,
                             const std::filesystem::path& workingDirectory) {
    QList<QUrl> items;
    bool optionsEnded = false;
    for (const std::string_view word : words) {
        if (!optionsEnded && word == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && word.size() > 1 && word.front() == '-') {
            throw UnknownOptionError("unknown option: " + std::string(word));
        } else if (looksLikeUrl(word)) {
            const QUrl url =
                QUrl::fromEncoded(QByteArray(word.data(), word.size()), QUrl::StrictMode);
            const std::filesystem::path path = filePath(url);
            if (!path.empty()) items.append(fileUrl(path));
        } else if (!word.empty()) {
            items.append(fileUrl(workingDirectory / word));
        }
    }
    return items;
}
