#pragma once

#include "BlockDevice.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <span>
#include <unordered_map>
#include <vector>

/// The one place where blocks of file-system structure are cached and written.
///
/// Structure (inodes, directories, bitmaps, extents) is written behind: a changed block stays here
/// until its owner, between operations, either writes it to its place with `flush()`, or puts
/// `changes()` into a journal and says so with `committed()`. Committed blocks are owed to their
/// places and stay here, too, until `flush()`. A block that is changed gets its room on the disk at
/// once, so that a full disk cannot keep it from being written. A write that does not change a
/// block leaves it as it is. File contents go straight to the device; whoever writes them calls
/// `forget()` first, so that a stale copy of a block's former life never reaches the disk.
///
/// Not thread-safe. Failures are `std::system_error`; blocks that could not be written stay
/// changed and are tried again at the next flush.
class BlockCache {
public:
    static constexpr std::size_t blockSize = BlockDevice::blockSize;
    static constexpr std::size_t capacity = 8192;     ///< blocks, 32 MiB
    static constexpr std::size_t changedLimit = 3072; ///< blocks, 12 MiB
    static constexpr std::size_t owedLimit = 3072;
    /// A copy of a block that is changed.
    struct Change {
        std::uint64_t block = 0;
        const std::byte* contents = nullptr; ///< valid until the next call
    };

    explicit BlockCache(BlockDevice& device) : device_(device) {}

    void read(std::uint64_t block, std::span<std::byte> into);
    /// Fails with ENOSPC, the block unchanged, when the disk has no room for it.
    void write(std::uint64_t block, std::span<const std::byte> from);
    /// Drops the blocks, changed or not.
    void forget(std::uint64_t first, std::uint64_t count);
    /// All changed blocks, in order of their place.
    std::vector<Change> changes();
    /// Tells that all changed blocks are safe in the journal.
    void committed() noexcept;
    /// Writes all changed and owed blocks to the device, in order of their place, and syncs when
    /// asked to. They count as written only after that.
    void flush(bool sync);
    std::size_t changedCount() const noexcept { return changed_; }
    std::size_t owedCount() const noexcept { return owed_; }

private:
    enum class State { clean, changed, owed };
    struct Entry {
        std::uint64_t block;
        State state = State::clean;
        std::array<std::byte, blockSize> data;
    };
    using Entries = std::list<Entry>; ///< most recently used first

    Entry& insert(std::uint64_t block);
    Entry* find(std::uint64_t block);
    Entry* fetch(std::uint64_t block);
    void evict();
    void setState(Entry& entry, State state) noexcept;
    std::vector<Entry*> unwritten();
    void writeRun(std::span<Entry* const> run);

    BlockDevice& device_;
    Entries entries_;
    std::unordered_map<std::uint64_t, Entries::iterator> index_;
    std::size_t changed_ = 0;
    std::size_t owed_ = 0;
};
