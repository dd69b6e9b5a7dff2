#pragma once

#include "BlockDevice.h"
#include "JournalFormat.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

/// The journal cannot be written by us; the text says why.
class JournalUnusable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A volume's journal: a log of transactions, each the new contents of some blocks, which happen
/// wholly or not at all.
///
/// The log is a ring of blocks. A transaction is written behind the one before it: blocks that
/// revoke, blocks that describe, copies of the changed blocks; when all of these are on the disk, a
/// commit block, which makes it count. After a crash whoever opens the volume (the kernel, e2fsck)
/// copies the blocks of all transactions that have one to their homes. So a changed block may go to
/// its home only after `commit`, and when all have got there for good, `clear` gives up the log's
/// contents. Sequence numbers only ever grow, so that what is left of an older transaction is never
/// taken for a newer one.
///
/// Not thread-safe. Failures are `std::system_error`; a call that failed may be made again.
class Journal {
public:
    static constexpr std::size_t blockSize = BlockDevice::blockSize;
    static constexpr std::size_t fewestBlocks = 1024;

    struct Change {
        std::uint64_t block = 0;
        const std::byte* contents = nullptr; ///< of `blockSize`
    };

    /// The journal that occupies `blocks` of the device, in this order. It must have been replayed
    /// after a crash. `wide` tells whether the volume has block numbers of 64 bits. Throws
    /// `JournalUnusable`.
    Journal(BlockDevice& device, std::vector<std::uint64_t> blocks, bool wide);

    /// Takes room on the disk and tells whoever finds the journal after a crash that there may be
    /// transactions. Returns when that is on the disk.
    void start();
    /// Makes one transaction of the changes. Copies in earlier transactions of the blocks in
    /// `revoked` are not to be used any more. Returns when it is on the disk, with everything that
    /// was written to the device before. After a failure the transaction may be there or not; the
    /// next call makes sure of it before it adds another one.
    void commit(std::span<const Change> changes, std::span<const std::uint64_t> revoked);
    /// Gives up all transactions. What they changed must be on the disk, synced.
    void clear();
    /// As `clear`; tells that there is nothing to be replayed.
    void stop();

    bool started() const noexcept { return started_; }
    /// Blocks of the log, and those of them that are free.
    std::size_t size() const noexcept { return ring_; }
    std::size_t room() const noexcept { return ring_ - used_; }
    /// How many blocks a transaction takes.
    std::size_t blocksFor(std::size_t changes, std::size_t revoked) const noexcept;

private:
    using Block = std::array<std::byte, blockSize>;

    void load();
    void writeSuperblock(std::uint32_t start);
    std::size_t revokesPerBlock() const noexcept;
    void compose(std::span<const Change> changes, std::span<const std::uint64_t> revoked);
    std::byte* append(JournalFormat::BlockType type);
    void appendRevokes(std::span<const std::uint64_t> revoked);
    void appendChanges(std::span<const Change> changes);
    JournalFormat::Tag appendCopy(const Change& change);
    void appendCommit();
    void closeBlock(std::byte* block) const;
    void finishTransaction();
    void writeLog(std::size_t place, std::span<const std::byte> from);

    BlockDevice& device_;
    const std::vector<std::uint64_t> blocks_;
    const bool wide_;
    alignas(std::uint64_t) Block superblock_{};
    std::uint32_t first_ = 0; ///< number in `blocks_` where the ring begins
    std::size_t ring_ = 0;
    std::size_t head_ = 0; ///< place in the ring of the next transaction
    std::size_t used_ = 0;
    std::uint32_t sequence_ = 0; ///< of the next transaction
    std::uint32_t seed_ = 0;     ///< of the checksums
    bool started_ = false;
    /// The transaction being written; not empty after a failure.
    std::vector<std::byte> unfinished_;
};
