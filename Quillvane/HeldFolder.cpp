#include "HeldFolder.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

HeldFolder::HeldFolder(const std::filesystem::path& folder)
    : name_(folder.filename().string()),
      parent_(::open(folder.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    struct stat status {};
    if (!parent_ || ::fstatat(parent_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw std::filesystem::filesystem_error("cannot examine", folder,
                                                std::error_code(errno, std::generic_category()));
    device_ = status.st_dev;
    inode_ = status.st_ino;
    // Without the right to read it nothing will be copied either; whoever tries says so.
    folder_.reset(
        ::openat(parent_.get(), name_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}
