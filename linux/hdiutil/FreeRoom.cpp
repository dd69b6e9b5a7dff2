#include "FreeRoom.h"

#include "Ext2Error.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr unsigned mostRows = 256;
constexpr std::uint64_t mostBlocks = 65536; // 256 MiB

} // namespace

void FreeRoom::note(std::uint64_t firstBlock, std::uint64_t count) {
    const blk64_t end = std::min<blk64_t>(firstBlock + count, ext2fs_blocks_count(fs_->super));
    if (refused_ || firstBlock >= end) return;
    const dgrp_t last = ext2fs_group_of_blk2(fs_, end - 1);
    for (dgrp_t group = ext2fs_group_of_blk2(fs_, firstBlock); group <= last; ++group)
        groups_.insert(group);
}

void FreeRoom::noteAll() {
    note(fs_->super->s_first_data_block, ext2fs_blocks_count(fs_->super));
}

void FreeRoom::giveSomeBack() {
    std::uint64_t budget = mostBlocks;
    for (unsigned row = 0; row < mostRows && budget > 0 && pending(); ++row) {
        if (!current_) {
            current_ = *groups_.begin();
            groups_.erase(groups_.begin());
            next_ = ext2fs_group_first_block2(fs_, *current_);
        }
        if (!discardNext(budget)) current_.reset();
        if (refused_) groups_.clear();
    }
}

/// Discards the next row of free blocks of the current group, if there is one.
bool FreeRoom::discardNext(std::uint64_t& budget) {
    const blk64_t last = ext2fs_group_last_block2(fs_, *current_);
    blk64_t first = 0;
    blk64_t end = 0;
    if (next_ > last) return false;
    errcode_t code = ext2fs_find_first_zero_block_bitmap2(fs_->block_map, next_, last, &first);
    if (code == ENOENT) return false;
    check(code);
    code = ext2fs_find_first_set_block_bitmap2(fs_->block_map, first, last, &end);
    if (code == ENOENT)
        end = last + 1;
    else
        check(code);
    refused_ = !device_.discard(first, end - first);
    next_ = end;
    budget -= std::min<std::uint64_t>(budget, end - first);
    return !refused_;
}
