#pragma once

#include <filesystem>
#include <string_view>
#include <sys/types.h>

/// Files that are on the disk when the call returns. All but `removeAbandoned` throw
/// `std::filesystem::filesystem_error`.
namespace DurableFile {

/// Replaces `target` whole: readers, and a crash, see the old contents or the new. On failure the
/// old file has its contents and mode, or there is none if there was none, and nothing is left
/// beside it. Only when the disk refuses even that, after it took the new file, does the new one
/// stay.
void replace(const std::filesystem::path& target, std::string_view contents, mode_t mode);
/// Removes a file; done as well when it is not there.
void remove(const std::filesystem::path& file);
/// Removes the temporary files of `replace` that a killed program of this user has left in the
/// directory. Those that are being written stay. Best effort.
void removeAbandoned(const std::filesystem::path& directory) noexcept;
void syncFile(const std::filesystem::path& file);
/// Makes the names in the directory durable.
void syncDirectory(const std::filesystem::path& directory);

} // namespace DurableFile
