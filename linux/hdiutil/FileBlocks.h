#pragma once

#include "Ext4Inode.h"

#include <cstdint>
#include <optional>

/// Which blocks of the volume hold which blocks of one file.
///
/// Works on a copy of the file's inode, which it changes and which libext2fs may write; the caller
/// stores the copy when done. Files are mapped by extents; the block lists of ext2 and ext3 are
/// understood too. Failures are `std::system_error`.
class FileBlocks {
public:
    enum class Kind { hole, unwritten, data };
    /// A stretch of the file whose blocks lie in one row. `physical` means nothing in a hole.
    struct Run {
        Kind kind = Kind::hole;
        std::uint64_t logical = 0;
        std::uint64_t physical = 0;
        std::uint64_t count = 0;
    };
    /// The last block that a file can have; also "up to the end of the file".
    static constexpr std::uint64_t lastBlock = 0xfffffffe;

    FileBlocks(ext2_filsys fs, Ext4Inode& inode) : fs_(fs), inode_(inode) {}
    ~FileBlocks();
    FileBlocks(const FileBlocks&) = delete;
    FileBlocks& operator=(const FileBlocks&) = delete;

    /// The run that begins at `logical`, at most `limit` blocks of it.
    Run find(std::uint64_t logical, std::uint64_t limit);
    /// Takes free blocks in one row, at most `count`, for a hole that begins at `logical`. Calls
    /// `prepare` with the run, whose kind it may change, and makes it part of the file. When
    /// anything fails, the blocks are free again and the file is as before.
    template <typename Prepare>
    Run extend(std::uint64_t logical, std::uint64_t count, Prepare prepare) {
        Run run = allocate(logical, count);
        try {
            prepare(run);
            insert(run);
        } catch (...) {
            release(run);
            throw;
        }
        return run;
    }
    /// Turns unwritten blocks into data.
    void markWritten(const Run& run);
    /// Frees blocks from `first` to `last`, as many as one transaction takes with ease. Answers the
    /// block to go on with; beyond `last` when all are free.
    std::uint64_t punchSome(std::uint64_t first, std::uint64_t last);

private:
    Run allocate(std::uint64_t logical, std::uint64_t count);
    void insert(const Run& run);
    void release(const Run& run);
    ext2_extent_handle_t handle();
    std::optional<ext2fs_extent> seek(std::uint64_t logical);
    std::optional<ext2fs_extent> following();
    void splitAt(std::uint64_t logical);
    bool joinLeft(const ext2fs_extent& extent);
    void cut(const ext2fs_extent& extent, std::uint64_t from, std::uint64_t to);
    void insertExtent(const Run& run);
    bool growLeft(const Run& run, const ext2fs_extent& left);

    ext2_filsys fs_;
    Ext4Inode& inode_;
    ext2_extent_handle_t handle_ = nullptr;
};
