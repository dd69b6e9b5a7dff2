#include "VolumeGrowth.h"

#include "Ext2Error.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr std::uint64_t mebibyte = 1024 * 1024 / BlockDevice::blockSize;
constexpr std::uint64_t smallestStep = 32 * mebibyte;
constexpr std::uint64_t stepFraction = 16;
/// More would not fit into one transaction.
constexpr std::uint64_t largestStep = 1024 * 1024 * mebibyte;
/// What a new last group holds besides its own structure.
constexpr std::uint64_t leastContents = 4 * mebibyte;
constexpr blk_t bitmaps = 2;

blk_t superblocksOf(ext2_filsys fs, dgrp_t group) {
    blk_t blocks = 0;
    ext2fs_super_and_bgd_loc2(fs, group, nullptr, nullptr, nullptr, &blocks);
    return blocks;
}

std::uint64_t lastInode(ext2_filsys fs, dgrp_t groups) {
    return std::uint64_t{groups} * EXT2_INODES_PER_GROUP(fs->super);
}

} // namespace

bool VolumeGrowth::possible() const {
    ext2_super_block* const super = fs_->super;
    return ext2fs_has_feature_meta_bg(super) != 0 && super->s_first_meta_bg == 0 &&
           ext2fs_has_group_desc_csum(fs_) != 0 && ext2fs_has_feature_journal(super) != 0 &&
           super->s_first_data_block == 0 &&
           device_.longestCount() > ext2fs_blocks_count(fs_->super);
}

/// Blocks of a group that hold no contents.
std::uint64_t VolumeGrowth::structureOf(dgrp_t group) const {
    return superblocksOf(fs_, group) + bitmaps + fs_->inode_blocks_per_group;
}

std::uint64_t VolumeGrowth::leastGroup() const {
    constexpr std::uint64_t mostSuperblocks = 2; // and descriptors
    return mostSuperblocks + bitmaps + fs_->inode_blocks_per_group + leastContents;
}

/// The length of the volume with so many more blocks for contents, or a little more.
std::uint64_t VolumeGrowth::lengthWith(std::uint64_t blocks, bool inodes) const {
    const std::uint64_t perGroup = EXT2_BLOCKS_PER_GROUP(fs_->super);
    const std::uint64_t now = ext2fs_blocks_count(fs_->super);
    const std::uint64_t end = perGroup * fs_->group_desc_count;
    if (blocks <= end - now && !inodes) return now + blocks;
    const std::uint64_t rest = blocks > end - now ? blocks - (end - now) : 0;
    const std::uint64_t least = leastGroup();
    const std::uint64_t contents = perGroup - (least - leastContents);
    const std::uint64_t whole = rest / contents;
    const std::uint64_t part = rest % contents + least - leastContents;
    const bool needsPart = rest % contents > 0 || whole == 0;
    return end + whole * perGroup + (needsPart ? std::max(part, least) : 0);
}

std::optional<dgrp_t> VolumeGrowth::grow(std::uint64_t needed, std::uint64_t atMost, bool inodes) {
    const std::uint64_t perGroup = EXT2_BLOCKS_PER_GROUP(fs_->super);
    const std::uint64_t now = ext2fs_blocks_count(fs_->super);
    const std::uint64_t step = std::max(smallestStep, now / stepFraction);
    const std::uint64_t blocks = std::min({std::max(needed, step), atMost, largestStep});
    const std::uint64_t mostGroups =
        std::numeric_limits<__u32>::max() / EXT2_INODES_PER_GROUP(fs_->super);
    std::uint64_t length =
        std::min({lengthWith(blocks, inodes), device_.longestCount(), mostGroups * perGroup});
    // A last group that is too small for its structure is left out.
    const std::uint64_t end = perGroup * fs_->group_desc_count;
    if (length > end && length % perGroup != 0 && length % perGroup < leastGroup())
        length -= length % perGroup;
    if (length <= now || (inodes && length <= end)) return std::nullopt;

    const dgrp_t before = fs_->group_desc_count;
    const auto after = static_cast<dgrp_t>((length + perGroup - 1) / perGroup);
    device_.lengthen(length);
    reserve(before, after);
    makeDescriptors(after);
    extendLastGroup(length);
    fs_->group_desc_count = after;
    addGroups(before);
    ext2fs_mark_super_dirty(fs_);
    return before - 1;
}

/// Takes the room of what will be written of the new groups: the next commit must not fail for
/// lack of it. A spare superblock is only a part of its block.
void VolumeGrowth::reserve(dgrp_t first, dgrp_t end) {
    const std::vector<char> zeros(fs_->blocksize);
    for (dgrp_t group = first; group < end; ++group) {
        const blk64_t start = ext2fs_group_first_block2(fs_, group);
        device_.reserve(start, superblocksOf(fs_, group) + bitmaps);
        if (ext2fs_bg_has_super(fs_, group) != 0)
            check(io_channel_write_blk64(fs_->io, start, 1, zeros.data()));
    }
}

/// Makes room in memory for the descriptors of so many groups.
void VolumeGrowth::makeDescriptors(dgrp_t end) {
    const std::uint64_t perBlock = EXT2_DESC_PER_BLOCK(fs_->super);
    const std::uint64_t before = fs_->desc_blocks;
    const std::uint64_t after = (end + perBlock - 1) / perBlock;
    check(ext2fs_resize_mem(before * fs_->blocksize, after * fs_->blocksize, &fs_->group_desc));
    char* const all = reinterpret_cast<char*>(fs_->group_desc);
    std::fill(all + before * fs_->blocksize, all + after * fs_->blocksize, '\0');
    fs_->desc_blocks = after;
}

/// Gives the volume its new length; the blocks up to the end of the last group become free.
void VolumeGrowth::extendLastGroup(std::uint64_t length) {
    const std::uint64_t perGroup = EXT2_BLOCKS_PER_GROUP(fs_->super);
    const std::uint64_t now = ext2fs_blocks_count(fs_->super);
    const auto groups = static_cast<dgrp_t>((length + perGroup - 1) / perGroup);
    check(ext2fs_resize_block_bitmap2(length - 1, groups * perGroup - 1, fs_->block_map));
    const std::uint64_t inodes = lastInode(fs_, groups);
    check(ext2fs_resize_inode_bitmap2(inodes, inodes, fs_->inode_map));
    ext2fs_blocks_count_set(fs_->super, length);

    const dgrp_t last = fs_->group_desc_count - 1;
    const auto added = static_cast<__u32>(std::min(length, perGroup * (last + 1)) - now);
    ext2fs_bg_free_blocks_count_set(fs_, last, ext2fs_bg_free_blocks_count(fs_, last) + added);
    ext2fs_group_desc_csum_set(fs_, last);
    ext2fs_free_blocks_count_add(fs_->super, added);
}

void VolumeGrowth::addGroups(dgrp_t first) {
    const __u32 inodes = EXT2_INODES_PER_GROUP(fs_->super);
    for (dgrp_t group = first; group < fs_->group_desc_count; ++group) {
        const blk64_t start = ext2fs_group_first_block2(fs_, group);
        std::memset(ext2fs_group_desc(fs_, fs_->group_desc, group), 0, EXT2_DESC_SIZE(fs_->super));
        const std::uint64_t structure = structureOf(group);
        ext2fs_mark_block_bitmap_range2(fs_->block_map, start, static_cast<blk_t>(structure));
        const blk64_t own = start + superblocksOf(fs_, group);
        ext2fs_block_bitmap_loc_set(fs_, group, own);
        ext2fs_inode_bitmap_loc_set(fs_, group, own + 1);
        ext2fs_inode_table_loc_set(fs_, group, own + bitmaps);
        // The last group's bitmap tells where the volume ends.
        const bool last = group + 1 == fs_->group_desc_count;
        ext2fs_bg_flags_set(fs_, group, EXT2_BG_INODE_UNINIT);
        if (!last) ext2fs_bg_flags_set(fs_, group, EXT2_BG_BLOCK_UNINIT);
        const auto blocks = static_cast<__u32>(ext2fs_group_blocks_count(fs_, group)) -
                            static_cast<__u32>(structure);
        ext2fs_bg_free_blocks_count_set(fs_, group, blocks);
        ext2fs_bg_free_inodes_count_set(fs_, group, inodes);
        ext2fs_bg_itable_unused_set(fs_, group, inodes);
        ext2fs_group_desc_csum_set(fs_, group);
        ext2fs_free_blocks_count_add(fs_->super, blocks);
        fs_->super->s_inodes_count += inodes;
        fs_->super->s_free_inodes_count += inodes;
        if (fs_->super->s_overhead_clusters != 0)
            fs_->super->s_overhead_clusters += static_cast<__u32>(structure);
    }
}
