#include "DropRules.h"

#include "FileUrl.h"
#include "ItemPath.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace {

bool isItem(const std::filesystem::path& path) {
    const QByteArray extension = QByteArray::fromStdString(path.extension().string());
    return extension.compare(".quillvane", Qt::CaseInsensitive) == 0;
}

bool qualifies(const QUrl& url, bool isFolder) {
    const std::filesystem::path named = filePath(url);
    if (named.empty()) return false;
    const std::filesystem::path path = itemPath(named);
    std::error_code unreachable;
    const auto status = std::filesystem::status(path, unreachable);
    if (!std::filesystem::exists(status)) return false;
    return isFolder ? std::filesystem::is_directory(status) : isItem(path);
}

} // namespace

QUrl DropRules::accepted(const QList<QUrl>& urls, bool isFolder) {
    const auto first = std::find_if(urls.begin(), urls.end(),
                                    [=](const QUrl& url) { return qualifies(url, isFolder); });
    return first == urls.end() ? QUrl() : *first;
}
