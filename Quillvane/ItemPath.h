#pragma once

#include <filesystem>

/// The path of an item or folder as the operations use it: absolute, without ".", ".." or a slash
/// at the end. Links stay as they are, except before a "..". Throws
/// `std::filesystem::filesystem_error` when there is no current directory.
std::filesystem::path itemPath(const std::filesystem::path& path);
