#pragma once

#include "Platform.h"

#include <optional>
#include <string>
#include <sys/stat.h>

/// Deletes files of which nothing may be lost but what was looked at.
///
/// Between a look at a file and its deletion by name another file could take the name, or somebody
/// could save into it. So it is moved out of its folder first, where nobody finds it by its name,
/// looked at once more, and put back if it has changed. Its name meanwhile is one that
/// `DurableFile::removeAbandoned` clears away after a crash. Where the file system does not let it
/// be moved, it is deleted by name.
class CheckedDeletion {
public:
    /// `scratch` is the open directory in which the files get their other name, `writers` is asked
    /// whether somebody has them open, if it is there. Both are borrowed.
    CheckedDeletion(int scratch, const Platform::WriterCheck* writers) noexcept
        : scratch_(scratch), writers_(writers) {}

    /// Deletes the entry of the open directory, which is no directory and was seen as `status`.
    /// Nothing when it is gone; otherwise it was changed, and stays by the name that is returned:
    /// its own, unless there is another file of that name by now. Throws `std::system_error` when
    /// the system does not let it go.
    std::optional<std::string> remove(int directory, const std::string& name,
                                      const struct stat& status) const;

private:
    bool isAside(const std::string& aside, const struct stat& status, int file) const;
    std::string putBack(const std::string& aside, int directory, const std::string& name) const;

    int scratch_;
    const Platform::WriterCheck* writers_;
};
