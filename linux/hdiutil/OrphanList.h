#pragma once

#include "Ext4Inode.h"

#include <list>
#include <unordered_map>

/// The inodes that whoever finds the volume after a crash is to clean up: those without a name are
/// freed, others are cut off at their size.
///
/// On the disk it is a chain from the superblock through the inodes' `i_dtime` (Linux,
/// Documentation/filesystems/ext4/orphan.rst). Not thread-safe; failures are `std::system_error`.
class OrphanList {
public:
    /// The volume's list must be empty.
    explicit OrphanList(ext2_filsys fs) : fs_(fs) {}

    bool contains(ext2_ino_t inode) const { return places_.contains(inode); }
    /// Puts the inode at the head of the list and stores it.
    void add(Ext4Inode& inode);
    /// Takes the inode from the list, if it is there; the caller stores it. No copy of another
    /// inode may be in use that is stored later.
    void remove(Ext4Inode& inode);

private:
    ext2_filsys fs_;
    std::list<ext2_ino_t> order_; ///< head first
    std::unordered_map<ext2_ino_t, std::list<ext2_ino_t>::iterator> places_;
};
