#pragma once

#include <QList>
#include <QUrl>

#include <filesystem>
#include <span>
#include <stdexcept>

/// The items to open among the words after the program's name and Qt's own options: paths, taken
/// from `workingDirectory` when they are relative, or "file:" URLs. A URL that names no local file
/// is left out. The application has no options; "--" goes before a name that looks like one.
/// Throws `UnknownOptionError`, and `std::filesystem::filesystem_error` for a relative path when
/// there is no working directory.
QList<QUrl> itemsInArguments(std::span<const char* const> words,
                             const std::filesystem::path& workingDirectory);

/// A word that looks like an option; the text names it.
class UnknownOptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
