// What is in the files of a volume: reading, writing, truncating, reserving, finding holes.

#include "Ext4Volume.h"

#include "Ext2Error.h"
#include "FileBlocks.h"

#include <linux/falloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::uint64_t blockSize = BlockCache::blockSize;
/// After a row of so many blocks, more are expected to follow.
constexpr std::uint64_t longRow = 32;
/// How much room is taken for them on the disk at once.
constexpr std::uint64_t roomBehind = 2048;
constexpr std::uint64_t largestFile = (FileBlocks::lastBlock + 1) * blockSize;

/// For so long, in nanoseconds, the times of a file stay while it is written to and nobody looks:
/// as long as on the kernel's file systems, whose clock ticks 250 times a second on most systems.
constexpr std::int64_t longestUnseen = 4'000'000;

bool isSoonAfter(const timespec& later, const timespec& earlier) {
    if (later.tv_sec < earlier.tv_sec || later.tv_sec - 1 > earlier.tv_sec) return false;
    const std::int64_t seconds = later.tv_sec - earlier.tv_sec;
    const std::int64_t age = seconds * 1'000'000'000 + later.tv_nsec - earlier.tv_nsec;
    return age >= 0 && age < longestUnseen;
}

std::uint64_t blocksFor(std::uint64_t bytes) {
    return (bytes + blockSize - 1) / blockSize;
}

void requireFile(const Ext4Inode& inode) {
    if (inode.isDirectory()) failWith(EISDIR);
    if (!inode.isRegular()) failWith(EINVAL);
}

} // namespace

/// The runs that hold `count` blocks of the file from `firstBlock` on.
std::vector<FileBlocks::Run> Ext4Volume::mapBlocks(Ext4Inode& inode, std::uint64_t firstBlock,
                                                   std::uint64_t count) {
    std::vector<FileBlocks::Run> runs;
    FileBlocks map(fs_, inode);
    for (const std::uint64_t end = firstBlock + count; firstBlock < end;) {
        runs.push_back(map.find(firstBlock, end - firstBlock));
        firstBlock += runs.back().count;
    }
    return runs;
}

/// Fills `into` with what the runs hold; holes are zeros.
void Ext4Volume::readRuns(std::span<const FileBlocks::Run> runs, std::span<std::byte> into) {
    for (const FileBlocks::Run& run : runs) {
        const auto part = into.first(run.count * blockSize);
        if (run.kind == FileBlocks::Kind::data)
            device_.read(run.physical, part);
        else
            std::fill(part.begin(), part.end(), std::byte{0});
        into = into.subspan(part.size());
    }
}

/// Fills `into` (whole blocks) with what the file has from `firstBlock` on.
void Ext4Volume::readMapped(Ext4Inode& inode, std::uint64_t firstBlock, std::span<std::byte> into) {
    readRuns(mapBlocks(inode, firstBlock, into.size() / blockSize), into);
}

std::size_t Ext4Volume::read(ext2_ino_t number, std::uint64_t offset, std::span<std::byte> into) {
    std::unique_lock lock(mutex_);
    Ext4Inode inode = load(number);
    requireFile(inode);
    if (offset >= inode.size()) return 0;
    const std::size_t count = std::min<std::uint64_t>(into.size(), inode.size() - offset);
    const std::uint64_t first = offset / blockSize;
    const std::size_t within = offset % blockSize;
    const std::size_t whole = (blocksFor(offset + count) - first) * blockSize;
    const auto runs = mapBlocks(inode, first, whole / blockSize);
    // From here on others may go on, but not give the blocks away or write to them.
    const std::shared_lock reading(reading_);
    lock.unlock();
    if (whole <= into.size()) {
        readRuns(runs, into.first(whole)); // what the end of the block holds is not told
        if (within != 0) std::memmove(into.data(), into.data() + within, count);
        return count;
    }
    std::vector<std::byte> blocks(whole);
    readRuns(runs, blocks);
    std::memcpy(into.data(), blocks.data() + within, count);
    return count;
}

/// File contents go past the cache, which must not keep what the block held in an earlier life.
void Ext4Volume::writeThrough(FileBlocks::Kind former, std::uint64_t physical,
                              std::span<const std::byte> from) {
    cache_.forget(physical, from.size() / blockSize);
    awaitReaders();
    unsyncedBytes_ += from.size();
    if (former == FileBlocks::Kind::data) return device_.write(physical, from);
    const std::uint64_t count = from.size() / blockSize;
    std::uint64_t behind = 0;
    if (count >= longRow) {
        // The next group begins with structure, much of which needs no room yet.
        const dgrp_t group = ext2fs_group_of_blk2(fs_, physical + count - 1);
        const std::uint64_t last = ext2fs_group_last_block2(fs_, group);
        behind = std::min(roomBehind, last + 1 - (physical + count));
    }
    if (device_.writeSoon(physical, from, behind))
        transactions_->freeRoom().note(physical + count, behind);
}

/// Writes the beginning of `from` into the run of blocks at `block`; answers how many bytes.
std::size_t Ext4Volume::writeRun(FileBlocks& map, std::uint64_t block,
                                 std::span<const std::byte> from) {
    FileBlocks::Run run = map.find(block, from.size() / blockSize);
    if (run.kind != FileBlocks::Kind::hole) {
        from = from.first(run.count * blockSize);
        writeThrough(run.kind, run.physical, from);
        if (run.kind == FileBlocks::Kind::unwritten) map.markWritten(run);
        return from.size();
    }
    run = map.extend(block, run.count, [&](const FileBlocks::Run& added) {
        writeThrough(FileBlocks::Kind::hole, added.physical, from.first(added.count * blockSize));
    });
    return run.count * blockSize;
}

/// Answers how many bytes were written before the disk was full; throws if none.
std::size_t Ext4Volume::writeBlocks(Ext4Inode& inode, std::uint64_t firstBlock,
                                    std::span<const std::byte> from) {
    FileBlocks map(fs_, inode);
    std::size_t written = 0;
    try {
        while (written < from.size())
            written += writeRun(map, firstBlock + written / blockSize, from.subspan(written));
    } catch (const std::exception&) {
        // What is in the file by now counts; the caller learns the rest from the short count.
        if (written == 0) throw;
    }
    return written;
}

std::size_t Ext4Volume::write(ext2_ino_t number, std::uint64_t offset,
                              std::span<const std::byte> from, const Caller& caller) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(number);
    requireFile(inode);
    if (from.empty()) return 0;
    if (offset >= largestFile) failWith(EFBIG);
    from = from.first(std::min<std::uint64_t>(from.size(), largestFile - offset));
    const bool unseen = unseenTimes_ == number;
    beginChange(blocksFor(from.size()));
    loseCapabilities(inode);
    if (loseBits(inode, caller, false)) store(inode);
    unsyncedContents_.insert(number);
    const std::uint64_t end = offset + from.size();
    const std::uint64_t first = offset / blockSize;
    const std::size_t within = offset % blockSize;
    std::size_t written = 0;
    if (within == 0 && from.size() % blockSize == 0) {
        written = writeBlocks(inode, first, from);
    } else {
        std::vector<std::byte> blocks((blocksFor(end) - first) * blockSize);
        const auto all = std::span(blocks);
        if (within != 0) readMapped(inode, first, all.first(blockSize));
        if (end % blockSize != 0 && end < inode.size() && (within == 0 || all.size() > blockSize))
            readMapped(inode, end / blockSize, all.last(blockSize));
        std::memcpy(blocks.data() + within, from.data(), from.size());
        const std::size_t done = writeBlocks(inode, first, all);
        written = std::min(from.size(), done - within);
    }
    if (offset + written > inode.size()) Ext4Inodes::setSize(fs_, inode, offset + written);
    stampWrite(inode, unseen);
    store(inode);
    return written;
}

/// Nobody can tell times that are a little older from true ones before somebody has seen them, or
/// something else has changed; and when only contents have changed, a sync needs no transaction.
void Ext4Volume::stampWrite(Ext4Inode& inode, bool unseen) {
    const timespec now = Ext4Inodes::now();
    unseenTimes_ = inode.number;
    if (unseen && isSoonAfter(now, inode.modified())) return;
    inode.setModified(now);
    inode.setChanged(now);
}

struct stat Ext4Volume::show(const Ext4Inode& inode) {
    if (unseenTimes_ == inode.number) unseenTimes_ = 0;
    return inode.attributes();
}

/// Zeroes bytes of one block of the file, if the block holds data.
void Ext4Volume::zeroWithin(Ext4Inode& inode, std::uint64_t from, std::uint64_t to) {
    if (from >= to) return;
    FileBlocks map(fs_, inode);
    const FileBlocks::Run run = map.find(from / blockSize, 1);
    if (run.kind != FileBlocks::Kind::data) return;
    std::vector<std::byte> block(blockSize);
    device_.read(run.physical, block);
    std::fill_n(block.begin() + static_cast<std::ptrdiff_t>(from % blockSize), to - from,
                std::byte{0});
    unsyncedContents_.insert(inode.number);
    writeThrough(run.kind, run.physical, block);
}

void Ext4Volume::truncate(Ext4Inode& inode, std::uint64_t size) {
    requireFile(inode);
    if (size > largestFile) failWith(EFBIG);
    // Beyond the end of the file its last block is zeros, so that a longer file reads zeros there.
    const std::uint64_t end = std::min(size, inode.size());
    zeroWithin(inode, end, blocksFor(end) * blockSize);
    const bool shorter = size < inode.size();
    Ext4Inodes::setSize(fs_, inode, size);
    if (shorter) releaseBlocks(inode, blocksFor(size), FileBlocks::lastBlock);
}

/// Frees blocks of the file, by several transactions when they are very many. Those behind the end
/// of the file are freed wholly even after a crash in between.
void Ext4Volume::releaseBlocks(Ext4Inode& inode, std::uint64_t first, std::uint64_t last) {
    const bool shortens = first >= blocksFor(inode.size()) && !orphans_->contains(inode.number);
    while (true) {
        first = FileBlocks(fs_, inode).punchSome(first, last);
        if (first > last) break;
        if (shortens) orphans_->add(inode);
        store(inode);
        commitWhen(false);
    }
    if (shortens) orphans_->remove(inode);
}

struct stat Ext4Volume::setAttributes(ext2_ino_t number, const Changes& changes,
                                      const Caller& caller) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(number);
    beginChange();
    const timespec now = Ext4Inodes::now();
    if (changes.owner || changes.group || changes.size) loseCapabilities(inode);
    if (changes.size) {
        truncate(inode, *changes.size);
        inode.setModified(now);
    }
    if (changes.mode)
        inode.raw.i_mode = static_cast<__u16>((inode.mode() & S_IFMT) | (*changes.mode & 07777));
    loseBits(inode, caller, changes);
    if (changes.owner) inode.setOwner(*changes.owner);
    if (changes.group) inode.setGroup(*changes.group);
    if (changes.accessed) inode.setAccessed(*changes.accessed);
    if (changes.modified) inode.setModified(*changes.modified);
    inode.setChanged(now);
    store(inode);
    if (changes.mode) followModeInAcl(inode);
    return show(load(number));
}

void Ext4Volume::punchRange(Ext4Inode& inode, std::uint64_t offset, std::uint64_t end) {
    const std::uint64_t firstWhole = blocksFor(offset);
    const std::uint64_t lastWhole = end / blockSize; // not included
    if (firstWhole > lastWhole) return zeroWithin(inode, offset, end);
    zeroWithin(inode, offset, firstWhole * blockSize);
    zeroWithin(inode, lastWhole * blockSize, end);
    if (firstWhole < lastWhole) releaseBlocks(inode, firstWhole, lastWhole - 1);
}

/// How many blocks between the two have none on the disk.
std::uint64_t Ext4Volume::holesIn(Ext4Inode& inode, std::uint64_t offset, std::uint64_t end) {
    FileBlocks map(fs_, inode);
    const std::uint64_t last = blocksFor(end);
    std::uint64_t holes = 0;
    for (std::uint64_t block = offset / blockSize; block < last;) {
        const FileBlocks::Run run = map.find(block, last - block);
        if (run.kind == FileBlocks::Kind::hole) holes += run.count;
        block += run.count;
    }
    return holes;
}

void Ext4Volume::reserveRange(Ext4Inode& inode, std::uint64_t offset, std::uint64_t end) {
    if (!inode.usesExtents()) failWith(EOPNOTSUPP);
    FileBlocks map(fs_, inode);
    const std::uint64_t last = blocksFor(end);
    for (std::uint64_t block = offset / blockSize; block < last;) {
        FileBlocks::Run run = map.find(block, last - block);
        if (run.kind == FileBlocks::Kind::hole) {
            run = map.extend(block, run.count, [&](FileBlocks::Run& added) {
                added.kind = FileBlocks::Kind::unwritten;
                device_.reserve(added.physical, added.count);
            });
        }
        block += run.count;
        if (!transactions_->full()) continue;
        store(inode);
        commitWhen(false);
    }
}

void Ext4Volume::allocate(ext2_ino_t number, int mode, std::uint64_t offset, std::uint64_t length,
                          const Caller& caller) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(number);
    requireFile(inode);
    if (length == 0) failWith(EINVAL);
    if (offset > largestFile || length > largestFile - offset) failWith(EFBIG);
    const std::uint64_t end = offset + length;
    const bool keepSize = (mode & FALLOC_FL_KEEP_SIZE) != 0;
    const int action = mode & ~FALLOC_FL_KEEP_SIZE;
    if (action != 0 && action != FALLOC_FL_PUNCH_HOLE && action != FALLOC_FL_ZERO_RANGE)
        failWith(EOPNOTSUPP);
    if (action == FALLOC_FL_PUNCH_HOLE && !keepSize) failWith(EOPNOTSUPP);
    const std::uint64_t needed = inode.usesExtents() ? holesIn(inode, offset, end) : 0;
    beginChange(action == FALLOC_FL_PUNCH_HOLE ? 0 : needed);
    if (action != FALLOC_FL_PUNCH_HOLE && needed > ext2fs_free_blocks_count(fs_->super))
        failWith(ENOSPC);
    loseCapabilities(inode);
    if (loseBits(inode, caller, false)) store(inode);
    if (action != 0) punchRange(inode, offset, end);
    if (action != FALLOC_FL_PUNCH_HOLE) {
        store(inode);
        commitWhen(transactions_->withholds(blocksFor(length)));
        try {
            reserveRange(inode, offset, end);
        } catch (...) {
            store(inode); // what could be reserved stays so
            throw;
        }
        if (!keepSize && end > inode.size()) Ext4Inodes::setSize(fs_, inode, end);
    }
    const timespec now = Ext4Inodes::now();
    inode.setModified(now);
    inode.setChanged(now);
    store(inode);
}

std::uint64_t Ext4Volume::seek(ext2_ino_t number, std::uint64_t offset, int whence) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(number);
    requireFile(inode);
    if (whence != SEEK_DATA && whence != SEEK_HOLE) failWith(EINVAL);
    if (offset >= inode.size()) failWith(ENXIO);
    FileBlocks map(fs_, inode);
    const std::uint64_t end = blocksFor(inode.size());
    for (std::uint64_t block = offset / blockSize; block < end;) {
        const FileBlocks::Run run = map.find(block, end - block);
        if ((run.kind == FileBlocks::Kind::data) == (whence == SEEK_DATA))
            return std::max(offset, block * blockSize);
        block += run.count;
    }
    if (whence == SEEK_DATA) failWith(ENXIO);
    return inode.size();
}
