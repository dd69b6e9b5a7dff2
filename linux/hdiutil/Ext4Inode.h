#pragma once

#include <ext2fs/ext2fs.h>

#include <cstdint>
#include <ctime>
#include <sys/stat.h>
#include <sys/types.h>

/// A copy of an on-disk inode in host byte order.
///
/// Nothing is cached: whoever changes a copy stores it before anybody else loads the inode again.
struct Ext4Inode {
    ext2_ino_t number = 0;
    ext2_inode_large raw{};

    /// The part that libext2fs' functions take; they may change it and write it to the volume.
    ext2_inode* base() noexcept { return reinterpret_cast<ext2_inode*>(&raw); }

    mode_t mode() const noexcept { return raw.i_mode; }
    bool isDirectory() const noexcept { return S_ISDIR(raw.i_mode); }
    bool isRegular() const noexcept { return S_ISREG(raw.i_mode); }
    bool isSymlink() const noexcept { return S_ISLNK(raw.i_mode); }
    bool usesExtents() const noexcept { return (raw.i_flags & EXT4_EXTENTS_FL) != 0; }
    std::uint64_t size() const noexcept;
    uid_t owner() const noexcept;
    gid_t group() const noexcept;
    void setOwner(uid_t owner) noexcept;
    void setGroup(gid_t group) noexcept;
    void setDevice(dev_t device) noexcept;

    timespec modified() const noexcept;
    void setAccessed(const timespec& when) noexcept;
    void setModified(const timespec& when) noexcept;
    void setChanged(const timespec& when) noexcept;
    void setBorn(const timespec& when) noexcept;

    /// All but st_dev and st_ino, which belong to the mount.
    struct stat attributes() const noexcept;
};

namespace Ext4Inodes {

/// Both throw `std::system_error`. `load` of an inode that is not in use is ESTALE.
Ext4Inode load(ext2_filsys fs, ext2_ino_t number);
void store(ext2_filsys fs, Ext4Inode& inode);

/// Sets the size, turning on the large-file feature where it is needed.
void setSize(ext2_filsys fs, Ext4Inode& inode, std::uint64_t size);

/// The present time, to the nanosecond.
timespec now() noexcept;

} // namespace Ext4Inodes
