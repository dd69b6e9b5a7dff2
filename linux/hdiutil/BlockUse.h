#pragma once

#include <ext2fs/ext2fs.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

/// Which blocks and inodes of a volume were taken and freed since the last commit, and the bitmaps
/// that say so.
///
/// libext2fs keeps all bitmaps in memory and would write all of them at each flush; here only those
/// of the groups that changed are written. A freed block is not given out again
/// before the change that freed it is committed: a crash would bring its former owner back, with
/// the new owner's contents. Until then it stays taken in memory, and only there.
///
/// One object at a time listens to a file system. Not thread-safe.
class BlockUse {
public:
    struct Range {
        std::uint64_t first = 0;
        std::uint64_t count = 0;
    };

    explicit BlockUse(ext2_filsys fs);
    ~BlockUse();
    BlockUse(const BlockUse&) = delete;
    BlockUse& operator=(const BlockUse&) = delete;

    /// Marks a row of blocks as taken (+1) or free (-1) and tells the object that listens; the
    /// callback that libext2fs 1.47.0 has for ranges gets an empty one.
    static void setRange(ext2_filsys fs, std::uint64_t first, std::uint64_t count, int taken);
    /// To be told of the first of the groups that have become larger or are new.
    void noteGrowth(dgrp_t first);
    /// To be told of every inode that is taken or freed; of single blocks libext2fs tells.
    void noteInode(ext2_ino_t inode);
    /// Blocks that are free but not to be had before the next commit, and how many they are.
    const std::vector<Range>& freed() const noexcept { return freed_; }
    std::uint64_t freedCount() const noexcept { return freedCount_; }
    /// How many bitmaps `writeBitmaps` will write at most.
    std::size_t changedBitmaps() const noexcept {
        return blockGroups_.size() + inodeGroups_.size();
    }

    /// Writes the changed bitmaps, which say that the freed blocks are free. No block may be taken
    /// from then on until `committed` or `failed`. Throws `std::system_error`.
    void writeBitmaps();
    /// Answers the blocks that may be given out again.
    std::vector<Range> committed() noexcept;
    void failed() noexcept;

private:
    void noteBlocks(std::uint64_t first, std::uint64_t count, int taken);
    void noteGroupsInUse();
    void writeBlockBitmap(dgrp_t group, std::vector<char>& bitmap);
    void writeInodeBitmap(dgrp_t group, std::vector<char>& bitmap);
    void writeBitmap(std::uint64_t place, const std::vector<char>& bitmap);
    void setFreed(bool taken) noexcept;

    ext2_filsys fs_;
    std::vector<Range> freed_;
    std::uint64_t freedCount_ = 0;
    std::set<dgrp_t> blockGroups_;
    std::set<dgrp_t> inodeGroups_;
    std::vector<__u16> groupFlags_; ///< as they were at the last commit
};
