#pragma once

#include <filesystem>

/// The ".hidden" file of a directory: the names, one a line, that file managers leave out.
///
/// Names that begin with "." are left out without it; names with a line feed cannot be listed. For
/// both nothing is done.
namespace HiddenList {

/// Adds the item's name to the list of its directory, or removes it. Other lines stay as they are;
/// adding and removing a name leaves the list byte for byte as it was, and none where none was. On
/// the disk when it returns. Throws `std::system_error`; the list is then as it was, unless the
/// disk was full and failed as well. Also removes what killed programs left behind in the directory
/// (`DurableFile::removeAbandoned`).
void set(const std::filesystem::path& item, bool hidden);
/// True also for names that begin with ".".
bool contains(const std::filesystem::path& item);

} // namespace HiddenList
