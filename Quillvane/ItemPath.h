#pragma once

#include <filesystem>
#include <optional>

/// The path of an item or folder as the operations use it: absolute, without ".", ".." or a slash
/// at the end. Links stay as they are, except before a "..". Throws
/// `std::filesystem::filesystem_error` when there is no current directory.
std::filesystem::path itemPath(const std::filesystem::path& path);
/// `itemPath` with the links in its directory resolved, so that one item has one path; the last
/// component stays as it is. As `itemPath` where the directory cannot be resolved.
std::filesystem::path resolvedItemPath(const std::filesystem::path& path);
/// Where the link at `path` leads in the end; nothing when it is no link, or leads nowhere.
std::optional<std::filesystem::path> targetOfLink(const std::filesystem::path& path);
