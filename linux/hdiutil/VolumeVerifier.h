#pragma once

#include "BlockDevice.h"

#include <ext2fs/ext2fs.h>

#include <cstdint>
#include <vector>

/// Looks at what every use of a volume depends on, so that a damaged one is never shown half.
///
/// It takes time by the number of block groups, not by what is stored: descriptors, bitmaps, the
/// journal, the reserved inodes and the beginning of the root. Everything else carries checksums of
/// its own, which are looked at when it is read. All functions throw `VolumeCorrupt` with what was
/// found, and `std::system_error` on I/O; they change nothing on the volume.
class VolumeVerifier {
public:
    /// For a volume whose superblock has passed `verifySuperblock`; both must outlive the object.
    VolumeVerifier(BlockDevice& device, ext2_filsys fs);

    /// The group descriptors: checksums, and whether what they place lies within the volume and
    /// nowhere twice.
    void checkDescriptors();
    /// After `checkDescriptors` and `ext2fs_read_bitmaps`, which looks at the checksums: whether
    /// the bitmaps agree with what is counted, and with where the structure lies.
    void checkBitmaps();
    /// Makes the superblock's counts of what is free those of the groups, in memory. e2fsck leaves
    /// them behind when it frees inodes without a name, and a kernel does not believe them either.
    void adoptCounts();
    /// After `checkBitmaps`: the journal, the reserved inodes and the root directory.
    void checkInodes();

private:
    struct Range {
        std::uint64_t first = 0;
        std::uint64_t count = 0;
    };

    void checkDescriptor(dgrp_t group);
    void place(std::uint64_t first, std::uint64_t count);
    void placeSuperblock(dgrp_t group);
    void requireApart(std::vector<Range>& ranges);
    void requireTaken(const Range& range);
    std::uint64_t freeBlocksIn(dgrp_t group);
    std::uint64_t freeInodesIn(dgrp_t group);
    void checkReservedInodes();
    void checkJournal();
    void checkJournalSuperblock(std::uint64_t block);
    void checkRoot();

    BlockDevice& device_;
    ext2_filsys fs_;
    std::vector<Range> structure_; ///< sorted after `checkDescriptors`
};
