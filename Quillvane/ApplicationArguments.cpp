#include "ApplicationArguments.h"

#include "FileUrl.h"

#include <QByteArray>

#include <string_view>

namespace {

constexpr auto summary = R"(usage: quillvane [ITEM]
       quillvane --protect FOLDER

Opens the window: with ITEM, to open that item in place; with --protect, to protect the folder. If
Quillvane is running, its window comes to the front and does it. In a terminal, use qv.

options:
  --protect     take what is given as a folder to protect
  --            what follows is a path, even if it begins with "-"
  -h, --help    show this text
  --version     show the version

exit status: 0 done, 1 failed, 2 wrong usage)";

bool looksLikeUrl(std::string_view word) {
    return QByteArray(word.data(), word.size()).left(5).toLower() == "file:";
}

} // namespace

ApplicationArguments ApplicationArguments::parse(std::span<const char* const> words,
                                                 const std::filesystem::path& workingDirectory) {
    QList<QUrl> files;
    bool optionsEnded = false;
    bool protect = false;
    for (const std::string_view word : words) {
        if (!optionsEnded && word == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && word == "--protect") {
            protect = true;
        } else if (!optionsEnded && word.size() > 1 && word.front() == '-') {
            throw WrongUsageError("unknown option: " + std::string(word));
        } else if (looksLikeUrl(word)) {
            const QUrl url =
                QUrl::fromEncoded(QByteArray(word.data(), word.size()), QUrl::StrictMode);
            const std::filesystem::path path = filePath(url);
            if (!path.empty()) files.append(fileUrl(path));
        } else if (!word.empty()) {
            files.append(fileUrl(workingDirectory / word));
        }
    }
    if (!protect) return {.items = files, .folderToProtect = {}};
    if (files.size() != 1) throw WrongUsageError("--protect takes one folder of this computer");
    return {.items = {}, .folderToProtect = files.first()};
}

std::optional<std::string> ApplicationArguments::textToPrint(std::span<const char* const> words) {
    const std::string_view word = words.empty() ? "" : words.front();
    if (word == "--help" || word == "-h") return summary;
    if (word == "--version") return "Quillvane " QUILLVANE_VERSION;
    return {};
}
