#include "BlockUse.h"

#include "Ext2Error.h"

#include <algorithm>
#include <utility>

namespace {

constexpr __u16 unusedFlags = EXT2_BG_BLOCK_UNINIT | EXT2_BG_INODE_UNINIT;

} // namespace

BlockUse::BlockUse(ext2_filsys fs) : fs_(fs) {
    groupFlags_.resize(fs->group_desc_count);
    noteGroupsInUse();
    blockGroups_.clear();
    inodeGroups_.clear();
    fs->priv_data = this;
    ext2fs_set_block_alloc_stats_callback(
        fs,
        [](ext2_filsys from, blk64_t block, int taken) {
            static_cast<BlockUse*>(from->priv_data)->noteBlocks(block, 1, taken);
        },
        nullptr);
}

BlockUse::~BlockUse() {
    ext2fs_set_block_alloc_stats_callback(fs_, nullptr, nullptr);
    fs_->priv_data = nullptr;
}

void BlockUse::setRange(ext2_filsys fs, std::uint64_t first, std::uint64_t count, int taken) {
    ext2fs_block_alloc_stats_range(fs, first, static_cast<blk_t>(count), taken);
    static_cast<BlockUse*>(fs->priv_data)->noteBlocks(first, count, taken);
}

void BlockUse::noteInode(ext2_ino_t inode) {
    inodeGroups_.insert(ext2fs_group_of_ino(fs_, inode));
}

void BlockUse::noteGrowth(dgrp_t first) {
    groupFlags_.resize(fs_->group_desc_count);
    for (dgrp_t group = first; group < fs_->group_desc_count; ++group) {
        groupFlags_[group] = ext2fs_bg_flags(fs_, group) & unusedFlags;
        if ((groupFlags_[group] & EXT2_BG_BLOCK_UNINIT) == 0) blockGroups_.insert(group);
    }
}

/// Called after libext2fs has changed the bitmap and the counts.
void BlockUse::noteBlocks(std::uint64_t first, std::uint64_t count, int taken) {
    const dgrp_t last = ext2fs_group_of_blk2(fs_, first + count - 1);
    for (dgrp_t group = ext2fs_group_of_blk2(fs_, first); group <= last; ++group)
        blockGroups_.insert(group);
    if (taken > 0) return;
    ext2fs_mark_block_bitmap_range2(fs_->block_map, first, static_cast<blk_t>(count));
    freedCount_ += count;
    if (!freed_.empty() && freed_.back().first + freed_.back().count == first)
        freed_.back().count += count;
    else
        freed_.push_back({first, count});
}

/// libext2fs puts a group to use as soon as it looks for something free in it.
void BlockUse::noteGroupsInUse() {
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        const __u16 flags = ext2fs_bg_flags(fs_, group) & unusedFlags;
        if (flags == groupFlags_[group]) continue;
        groupFlags_[group] = flags;
        blockGroups_.insert(group);
        inodeGroups_.insert(group);
    }
}

void BlockUse::setFreed(bool taken) noexcept {
    for (const Range& range : freed_) {
        const auto count = static_cast<blk_t>(range.count);
        if (taken)
            ext2fs_mark_block_bitmap_range2(fs_->block_map, range.first, count);
        else
            ext2fs_unmark_block_bitmap_range2(fs_->block_map, range.first, count);
    }
}

void BlockUse::writeBitmaps() {
    setFreed(false);
    noteGroupsInUse();
    std::vector<char> bitmap(fs_->blocksize);
    for (const dgrp_t group : blockGroups_) writeBlockBitmap(group, bitmap);
    for (const dgrp_t group : inodeGroups_) writeInodeBitmap(group, bitmap);
    if (changedBitmaps() > 0) ext2fs_mark_super_dirty(fs_);
    fs_->flags &= ~(EXT2_FLAG_BB_DIRTY | EXT2_FLAG_IB_DIRTY);
}

void BlockUse::writeBlockBitmap(dgrp_t group, std::vector<char>& bitmap) {
    if (ext2fs_bg_flags_test(fs_, group, EXT2_BG_BLOCK_UNINIT) != 0) return;
    const std::uint64_t first = ext2fs_group_first_block2(fs_, group);
    const std::uint64_t count = EXT2_BLOCKS_PER_GROUP(fs_->super);
    std::fill(bitmap.begin(), bitmap.end(), '\xff');
    check(ext2fs_get_block_bitmap_range2(fs_->block_map, first, count, bitmap.data()));
    // Blocks beyond the end of the volume count as taken.
    const std::uint64_t end = ext2fs_blocks_count(fs_->super);
    for (std::uint64_t beyond = end - first; beyond < count; ++beyond)
        ext2fs_set_bit(static_cast<unsigned>(beyond), bitmap.data());
    check(ext2fs_block_bitmap_csum_set(fs_, group, bitmap.data(), static_cast<int>(count / 8)));
    ext2fs_group_desc_csum_set(fs_, group);
    writeBitmap(ext2fs_block_bitmap_loc(fs_, group), bitmap);
}

void BlockUse::writeInodeBitmap(dgrp_t group, std::vector<char>& bitmap) {
    if (ext2fs_bg_flags_test(fs_, group, EXT2_BG_INODE_UNINIT) != 0) return;
    const std::uint64_t count = EXT2_INODES_PER_GROUP(fs_->super);
    const std::uint64_t first = std::uint64_t{group} * count + 1;
    std::fill(bitmap.begin(), bitmap.end(), '\xff');
    check(ext2fs_get_inode_bitmap_range2(fs_->inode_map, first, count, bitmap.data()));
    check(ext2fs_inode_bitmap_csum_set(fs_, group, bitmap.data(), static_cast<int>(count / 8)));
    ext2fs_group_desc_csum_set(fs_, group);
    writeBitmap(ext2fs_inode_bitmap_loc(fs_, group), bitmap);
}

void BlockUse::writeBitmap(std::uint64_t place, const std::vector<char>& bitmap) {
    if (place == 0) failWith(EUCLEAN);
    check(io_channel_write_blk64(fs_->io, place, 1, bitmap.data()));
}

std::vector<BlockUse::Range> BlockUse::committed() noexcept {
    freedCount_ = 0;
    blockGroups_.clear();
    inodeGroups_.clear();
    return std::exchange(freed_, {});
}

void BlockUse::failed() noexcept {
    setFreed(true);
}
