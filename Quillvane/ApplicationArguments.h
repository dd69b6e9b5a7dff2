#pragma once

#include <QList>
#include <QUrl>

#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

/// What a start of the application is asked to do.
struct ApplicationArguments {
    QList<QUrl> items;    ///< to be opened
    QUrl folderToProtect; ///< empty when there is none; items are given without it

    /// Understands the words after the program's name and Qt's own options: items, or "--protect"
    /// and one folder. Each is a path, taken from `workingDirectory` when it is relative, or a
    /// "file:" URL; a URL that names no local file is left out. "--" goes before a name that looks
    /// like an option. Throws `WrongUsageError`, and `std::filesystem::filesystem_error` for a
    /// relative path when there is no working directory.
    static ApplicationArguments parse(std::span<const char* const> words,
                                      const std::filesystem::path& workingDirectory);

    /// The text to print in place of a start, when the first word asks for one: "--help" and "-h"
    /// for a summary, "--version".
    static std::optional<std::string> textToPrint(std::span<const char* const> words);
};

/// A command line that cannot be understood; the text says why.
class WrongUsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
