#pragma once

#include "KeyMetadata.h"

#include <filesystem>
#include <optional>
#include <string>

/// The key file beside each item.
namespace KeyStore {

/// "." + the item's file name + ".qvkeys" in the item's directory.
std::filesystem::path path(const std::filesystem::path& container);

/// The key file's text; nothing when it cannot be read for any reason, or is no regular file, or a
/// link to one that is not the user's, or is far larger than a key file can be.
std::optional<std::string> read(const std::filesystem::path& container);
/// Replaces the key file whole: on the disk when this returns, as it was when it throws
/// `std::system_error`. Then hides it, as far as that works. Also removes what killed programs left
/// behind in the directory (`DurableFile::removeAbandoned`).
void write(const KeyMetadata& metadata, const std::filesystem::path& container);
/// Where a key file of another item that had this name is kept, the first or a later one.
std::filesystem::path formerPath(const std::filesystem::path& container, int number = 1);
/// Gives the key file of another item, which had this name and was moved away without it, a name of
/// its own that is free, in the same directory: the other item's password needs it. That name's
/// path; nothing when there is no such key file, or when it is `successor` already. What cannot be
/// read, as root's, may be one. Throws
/// `std::filesystem::filesystem_error`.
std::optional<std::filesystem::path> setAsideFormer(const std::filesystem::path& container,
                                                    const KeyMetadata& successor);
/// Gives the key file of `from` such a name beside `container`. Throws the same.
std::filesystem::path setAside(const std::filesystem::path& from,
                               const std::filesystem::path& container);
/// The one that was set aside last; nothing when there is none. Throws the same.
std::optional<std::filesystem::path> lastFormer(const std::filesystem::path& container);
/// A sentence for the user about what was set aside.
std::string textOfFormer(const std::filesystem::path& setAside);
/// Gives the key file of `from` to `to`, which has none; needs no room on the disk. False when it
/// cannot.
bool move(const std::filesystem::path& from, const std::filesystem::path& to) noexcept;
/// Removes the key file; errors are ignored, "not there" included.
void remove(const std::filesystem::path& container) noexcept;
/// Hides or shows the key file if there is one; errors are ignored.
void setHidden(const std::filesystem::path& container, bool hidden);

} // namespace KeyStore
