#pragma once

#include <QUrl>

#include <filesystem>

/// Local files as URLs and back, byte for byte: names need not be valid UTF-8.

/// The absolute path that a "file:" URL names; empty for other URLs, for files of other computers,
/// and for what no file can be named.
std::filesystem::path filePath(const QUrl& url);
/// The "file:" URL of a path, which is made absolute first.
QUrl fileUrl(const std::filesystem::path& path);
