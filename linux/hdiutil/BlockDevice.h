#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// A row of 4096-byte blocks that a volume lies on.
///
/// What was written may reach the disk in any order, or not at all, until `sync` returns. All
/// operations may be called from several threads at once; failures are `std::system_error`.
class BlockDevice {
public:
    static constexpr std::size_t blockSize = 4096;

    BlockDevice() = default;
    virtual ~BlockDevice() = default;
    BlockDevice(const BlockDevice&) = delete;
    BlockDevice& operator=(const BlockDevice&) = delete;

    virtual std::uint64_t blockCount() const noexcept = 0;
    /// How many blocks the disk beneath still has room for.
    virtual std::uint64_t freeBlocks() = 0;
    /// `into` and `from` are whole blocks.
    virtual void read(std::uint64_t firstBlock, std::span<std::byte> into) = 0;
    virtual void write(std::uint64_t firstBlock, std::span<const std::byte> from) = 0;
    /// As `write`, for blocks that nothing on the disk refers to yet; may return once they have
    /// room there, and fail with what an earlier such row met with. They are read as written at
    /// once. What fails later is kept, tried again, and told by `sync` until it succeeds.
    /// Answers whether it has taken room for up to `behind` blocks after the row, too.
    virtual bool writeSoon(std::uint64_t firstBlock, std::span<const std::byte> from,
                           [[maybe_unused]] std::uint64_t behind) {
        write(firstBlock, from);
        return false;
    }
    /// Makes sure that the disk has room for the blocks, where its file system can tell (ENOSPC).
    /// Costs little when it has long had.
    virtual void reserve(std::uint64_t firstBlock, std::uint64_t count) = 0;
    /// Returns when everything written is on the disk, and the length that `lengthen` gave.
    virtual void sync() = 0;
    /// The same, for somebody who only wants the next `sync` to be short: a failure is told by that
    /// one, too.
    virtual void syncAhead() { sync(); }

    /// How many blocks the device may be lengthened to; its own number when it cannot be.
    virtual std::uint64_t longestCount() { return blockCount(); }
    /// Lengthens the device to `count` blocks; a longer one stays as it is. What the new blocks
    /// hold is not told.
    virtual void lengthen([[maybe_unused]] std::uint64_t count) {}
    /// Gives the blocks' room back to the disk; what they hold from then on is not told. Answers
    /// false when the device keeps all its room for good.
    virtual bool discard([[maybe_unused]] std::uint64_t firstBlock,
                         [[maybe_unused]] std::uint64_t count) {
        return false;
    }
    /// How many of the device's blocks have room on the disk; rather too few than too many.
    virtual std::uint64_t backedBlocks() { return 0; }
};
