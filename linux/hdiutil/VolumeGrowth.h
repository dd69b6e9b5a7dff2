#pragma once

#include "BlockDevice.h"

#include <ext2fs/ext2fs.h>

#include <cstdint>
#include <optional>

/// Lengthens an ext4 that is in use.
///
/// The last group of blocks is filled up, and new groups follow, each with its bitmaps and its part
/// of the inode table in itself. None of them is written: the new groups are marked as never used.
/// That needs the descriptors of groups to lie among the groups (`meta_bg`), where there is always
/// room for more, and checksums, without which a group cannot be so marked.
///
/// What changes is all in memory, for the next transaction; only the device is lengthened before. A
/// crash in between leaves it longer than its volume, and the next growth uses that. Not
/// thread-safe.
class VolumeGrowth {
public:
    VolumeGrowth(BlockDevice& device, ext2_filsys fs) : device_(device), fs_(fs) {}

    /// Whether the volume is of the kind that grows, on a device that can.
    bool possible() const;
    /// Adds free blocks: a good step, at least `needed` of them, but not more than `atMost`, unless
    /// it takes that to add a group at all; with `inodes`, at least one group. Answers the first
    /// group that changed, or nothing when the device ends here. Throws `std::system_error` when
    /// the disk has no room for what the groups themselves need; nothing has changed then.
    std::optional<dgrp_t> grow(std::uint64_t needed, std::uint64_t atMost, bool inodes);

private:
    std::uint64_t lengthWith(std::uint64_t blocks, bool inodes) const;
    std::uint64_t structureOf(dgrp_t group) const;
    std::uint64_t leastGroup() const;
    void reserve(dgrp_t first, dgrp_t end);
    void makeDescriptors(dgrp_t end);
    void extendLastGroup(std::uint64_t length);
    void addGroups(dgrp_t first);

    BlockDevice& device_;
    ext2_filsys fs_;
};
