#include "OrphanList.h"

#include <iterator>

void OrphanList::add(Ext4Inode& inode) {
    if (contains(inode.number)) return;
    const __u32 before = inode.raw.i_dtime;
    inode.raw.i_dtime = fs_->super->s_last_orphan;
    try {
        Ext4Inodes::store(fs_, inode);
    } catch (...) {
        inode.raw.i_dtime = before;
        throw;
    }
    fs_->super->s_last_orphan = inode.number;
    ext2fs_mark_super_dirty(fs_);
    order_.push_front(inode.number);
    places_.emplace(inode.number, order_.begin());
}

void OrphanList::remove(Ext4Inode& inode) {
    const auto found = places_.find(inode.number);
    if (found == places_.end()) return;
    const auto place = found->second;
    if (place == order_.begin()) {
        fs_->super->s_last_orphan = inode.raw.i_dtime;
        ext2fs_mark_super_dirty(fs_);
    } else {
        Ext4Inode previous = Ext4Inodes::load(fs_, *std::prev(place));
        previous.raw.i_dtime = inode.raw.i_dtime;
        Ext4Inodes::store(fs_, previous);
    }
    inode.raw.i_dtime = 0;
    order_.erase(place);
    places_.erase(found);
}
