#pragma once

#include <filesystem>

/// Deletes folders with everything in them.
namespace TreeRemoval {

/// Removes the file, link or folder at `path`. Follows no symbolic link and never leaves the file
/// system that `path` is on; makes folders of the user writable where it must. Trees may be nested
/// to any depth. Throws `std::filesystem::filesystem_error` with the path that could not be
/// removed; what came before is gone then.
void remove(const std::filesystem::path& path);

} // namespace TreeRemoval
