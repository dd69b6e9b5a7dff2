#pragma once

#include "FileDescriptor.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>

/// A folder that is held since it was examined, so that another one that is put in its place is not
/// taken for it.
class HeldFolder {
public:
    /// `folder` is absolute. Throws `std::filesystem::filesystem_error` when it or its parent
    /// cannot be examined.
    explicit HeldFolder(const std::filesystem::path& folder);

    /// The open directory that the folder is in.
    int parent() const noexcept { return parent_.get(); }
    const std::string& name() const noexcept { return name_; }
    /// True when `status` is of this folder.
    bool is(const struct stat& status) const noexcept {
        return status.st_dev == device_ && status.st_ino == inode_;
    }

private:
    std::string name_;
    FileDescriptor parent_;
    FileDescriptor folder_; ///< its number is not given away as long as this is open
    dev_t device_ = 0;
    ino_t inode_ = 0;
};
