#pragma once

#include "EncryptedImage.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <unordered_map>

/// The one place where blocks of file-system structure are cached and written.
///
/// Structure (inodes, directories, bitmaps, extents) is written behind: it stays here until
/// `flush()`, which the owner calls, at the latest when `full()`, between operations: in the middle
/// of one a failure to write other blocks would be taken for a failure of the operation. A block
/// that is changed gets its room on the disk at once, so that a full disk cannot keep it from being
/// written. A write that does not change a block leaves it clean. File contents go straight to the
/// image; whoever writes them calls `forget()` first, so that a stale copy of a block's former life
/// never reaches the disk.
///
/// Not thread-safe. Failures are `std::system_error`; blocks that could not be written stay
/// changed and are tried again at the next flush.
class BlockCache {
public:
    static constexpr std::size_t blockSize = EncryptedImage::blockSize;
    static constexpr std::size_t capacity = 6144;   ///< blocks, 24 MiB
    static constexpr std::size_t dirtyLimit = 3072; ///< blocks, 12 MiB

    explicit BlockCache(EncryptedImage& image) : image_(image) {}

    void read(std::uint64_t block, std::span<std::byte> into);
    /// Fails with ENOSPC, the block unchanged, when the disk has no room for it.
    void write(std::uint64_t block, std::span<const std::byte> from);
    /// Drops the blocks, changed or not.
    void forget(std::uint64_t first, std::uint64_t count);
    /// Writes all changed blocks to the image, in order of their place; does not sync.
    void flush();
    /// Whether so much has changed that it should be flushed now.
    bool full() const noexcept { return dirtyCount_ > dirtyLimit; }

private:
    struct Entry {
        std::uint64_t block;
        bool dirty = false;
        std::array<std::byte, blockSize> data;
    };
    using Entries = std::list<Entry>; ///< most recently used first

    Entry& insert(std::uint64_t block);
    Entry* find(std::uint64_t block);
    void evict();
    void writeRun(std::span<Entry* const> run);

    EncryptedImage& image_;
    Entries entries_;
    std::unordered_map<std::uint64_t, Entries::iterator> index_;
    std::size_t dirtyCount_ = 0;
};
