#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <sys/types.h>

/// Files that are on the disk when the call returns. All but `removeAbandoned` throw
/// `std::filesystem::filesystem_error`.
namespace DurableFile {

/// Replaces `target` whole: readers, and a crash, see the old contents or the new. On failure the
/// old file has its contents and mode, or there is none if there was none, and nothing is left
/// beside it. Only when the disk refuses even that, after it took the new file, or when the old one
/// was a link or could not be read, does the new one stay. The old contents are held in memory
/// meanwhile: for small files.
void replace(const std::filesystem::path& target, std::string_view contents, mode_t mode);
/// Removes a file; done as well when it is not there.
void remove(const std::filesystem::path& file);
/// A new name of a temporary file. Whoever makes one by it holds a lock on it (`flock`), or it is
/// taken for abandoned.
std::string temporaryName();
bool isTemporaryName(std::string_view name);
/// Removes the temporary files that a killed program of this user has left in the directory. Those
/// that are locked stay. Best effort.
void removeAbandoned(const std::filesystem::path& directory) noexcept;
void syncFile(const std::filesystem::path& file);
/// Makes the names in the directory durable.
void syncDirectory(const std::filesystem::path& directory);

} // namespace DurableFile
