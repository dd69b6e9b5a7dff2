#pragma once

#include "linux/ditto/FileError.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>

/// What the file system says about one entry.
struct Status {
    dev_t device = 0;
    std::uint64_t inode = 0;
    mode_t mode = 0; ///< type and permission bits
    std::uint64_t links = 0;
    uid_t owner = 0;
    gid_t group = 0;
    dev_t node = 0;           ///< which device a device node stands for
    std::uint64_t size = 0;   ///< bytes
    std::uint64_t blocks = 0; ///< units of 512 bytes
    timespec accessed{};
    timespec modified{};
    timespec changed{};
    bool mountRoot = false; ///< something is mounted here (a bind mount has no device of its own)

    bool isDirectory() const noexcept { return S_ISDIR(mode); }
    bool isRegular() const noexcept { return S_ISREG(mode); }
    bool isSymbolicLink() const noexcept { return S_ISLNK(mode); }
    bool isSocket() const noexcept { return S_ISSOCK(mode); }
    mode_t type() const noexcept { return mode & S_IFMT; }
    bool sameEntry(const Status& other) const noexcept {
        return device == other.device && inode == other.inode;
    }
};

/// The status of `name` in the directory `directory`, links not followed; of `directory` itself
/// when `name` is empty. Throws FileError.
Status statusAt(Side side, int directory, const char* name);

/// True when `copy` is the best that a file system with coarser times, or a narrower range of
/// them, can make of `original`.
bool sameTime(const timespec& original, const timespec& copy) noexcept;
