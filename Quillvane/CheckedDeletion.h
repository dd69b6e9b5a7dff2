#pragma once

#include "Platform.h"

#include <optional>
#include <string>
#include <sys/stat.h>

/// Deletes entries of which nothing may be lost but what was looked at.
///
/// Between a look at an entry and its deletion by name another file could take the name, or
/// somebody could save into it. So it gets a temporary name first (`DurableFile::temporaryName`),
/// by which nobody finds it, is looked at once more, and gets its own name back if it has changed.
/// It stays in its folder: nobody else may read what that keeps from them. Where the file system
/// does not let it be renamed, it is deleted by its name.
class CheckedDeletion {
public:
    /// `writers` is asked whether somebody has the files open, if it is there; it is borrowed.
    explicit CheckedDeletion(const Platform::WriterCheck* writers) noexcept : writers_(writers) {}

    /// Deletes the entry of the open directory, which is no directory and was seen as `status`.
    /// Nothing when it is gone; otherwise it was changed, and stays by the name that is returned:
    /// its own, unless there is another file of that name by now. Throws `std::system_error` when
    /// the system does not let it go.
    std::optional<std::string> remove(int directory, const std::string& name,
                                      const struct stat& status) const;

private:
    bool isUnchanged(int directory, const std::string& name, const struct stat& status,
                     int file) const;

    const Platform::WriterCheck* writers_;
};
