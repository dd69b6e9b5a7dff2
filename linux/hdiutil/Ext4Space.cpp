// How much a volume holds and can hold: growing, giving room back to the disk, telling the truth.

#include "Ext4Volume.h"

#include "Ext2Error.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>

namespace {

using namespace std::chrono_literals;

/// With fewer free inodes the volume grows.
constexpr std::uint32_t spareInodes = 64;
/// Freed blocks for which an operation on a full disk waits for a commit. Fewer are to be had when
/// the next one comes by itself.
constexpr std::uint64_t worthCommit = 256;
/// Of the disk's room, what is not promised: structure takes a part of what contents take.
constexpr std::uint64_t structureFraction = 64;
constexpr std::uint64_t structureLeast = 1024;
constexpr auto longestGivingBack = 1s;
constexpr auto longestAtTheEnd = 300ms;

} // namespace

/// Whether an operation might not find what it needs, even if the disk beneath has it.
bool Ext4Volume::lacksRoom(std::uint64_t neededBlocks) const {
    const std::uint64_t wanted = neededBlocks + 2 * Transactions::spareBlocks;
    return ext2fs_free_blocks_count(fs_->super) < wanted + transactions_->withheld() ||
           fs_->super->s_free_inodes_count < spareInodes;
}

/// Between operations. When there is no room to be had, the operation finds that out itself.
void Ext4Volume::makeRoom(std::uint64_t neededBlocks) {
    helpFullDisk(neededBlocks);
    while (growth_ && lacksRoom(neededBlocks)) {
        if (transactions_->withheld() > Transactions::spareBlocks) {
            commit();
        } else {
            if (!grow(neededBlocks)) return;
            commitWhen(false);
        }
    }
}

/// Gives back the room of freed blocks at once when the disk is short of it: what an operation
/// takes may be other blocks, which have none.
void Ext4Volume::helpFullDisk(std::uint64_t neededBlocks) {
    const bool uncommitted = transactions_->withheld() >= worthCommit;
    FreeRoom& room = transactions_->freeRoom();
    if (suspect_ || (!uncommitted && !room.pending() && lookedEverywhere_)) return;
    const std::uint64_t wanted = neededBlocks + Transactions::spareBlocks;
    if (device_.freeBlocks() >= wanted) return;
    if (uncommitted) commit();
    if (!lookedEverywhere_) {
        // What was freed in an earlier session that ended in a crash, or by other systems.
        if (backedFreeBlocks() > 0) room.noteAll();
        lookedEverywhere_ = true;
    }
    try {
        while (room.pending() && device_.freeBlocks() < wanted) room.giveSomeBack();
    } catch (const std::system_error&) {
        // The operation does without.
    }
}

bool Ext4Volume::grow(std::uint64_t neededBlocks) {
    const std::uint64_t free = ext2fs_free_blocks_count(fs_->super);
    const std::uint64_t writable = writableBlocks();
    if (writable <= free) return false;
    const std::uint64_t wanted = neededBlocks + 2 * Transactions::spareBlocks;
    try {
        const auto changed = growth_->grow(wanted > free ? wanted - free : 0, writable - free,
                                           fs_->super->s_free_inodes_count < spareInodes);
        if (!changed) return false;
        transactions_->grown(*changed);
    } catch (const std::system_error&) {
        return false; // the volume is as it was, and may be large enough
    }
    overhead_ = overheadBlocks();
    return true;
}

void Ext4Volume::giveRoomBack() {
    const auto end = std::chrono::steady_clock::now() + longestGivingBack;
    while (std::chrono::steady_clock::now() < end) {
        {
            const std::lock_guard lock(mutex_);
            if (!transactions_ || suspect_ || !transactions_->freeRoom().pending()) return;
            transactions_->freeRoom().giveSomeBack();
        }
        std::this_thread::sleep_for(1ms); // others are waiting
    }
}

/// What is left over goes with the next change of its group.
void Ext4Volume::giveRoomBackAtTheEnd() noexcept {
    const auto end = std::chrono::steady_clock::now() + longestAtTheEnd;
    try {
        while (!suspect_ && transactions_->freeRoom().pending() &&
               std::chrono::steady_clock::now() < end)
            transactions_->freeRoom().giveSomeBack();
    } catch (const std::exception&) {
        // The volume is whole and closed; only its file is larger than it need be.
    }
}

/// The blocks that the file system's own structure takes, whatever is stored in it.
std::uint64_t Ext4Volume::overheadBlocks() {
    constexpr unsigned bitmaps = 2;
    std::uint64_t blocks = 0;
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        blk_t superblocks = 0;
        ext2fs_super_and_bgd_loc2(fs_, group, nullptr, nullptr, nullptr, &superblocks);
        blocks += superblocks + bitmaps + fs_->inode_blocks_per_group;
    }
    if (ext2fs_has_feature_journal(fs_->super) && fs_->super->s_journal_inum != 0)
        blocks += load(fs_->super->s_journal_inum).size() / fs_->blocksize;
    return std::min<std::uint64_t>(blocks, ext2fs_blocks_count(fs_->super));
}

/// Free blocks of the volume that have room on the disk; rather too few.
std::uint64_t Ext4Volume::backedFreeBlocks() {
    const std::uint64_t free = ext2fs_free_blocks_count(fs_->super);
    const std::uint64_t used = ext2fs_blocks_count(fs_->super) - free;
    const std::uint64_t backed = device_.backedBlocks();
    return backed > used ? std::min(backed - used, free) : 0;
}

/// How much more the disk beneath can hold of this volume's contents.
std::uint64_t Ext4Volume::writableBlocks() {
    const std::uint64_t onDisk = device_.freeBlocks();
    const std::uint64_t kept = onDisk / structureFraction + structureLeast;
    return backedFreeBlocks() + (onDisk > kept ? onDisk - kept : 0);
}

struct statvfs Ext4Volume::statistics() {
    const std::lock_guard lock(mutex_);
    const std::uint64_t free = ext2fs_free_blocks_count(fs_->super);
    std::uint64_t writable = writableBlocks();
    if (growth_) // some disks have only short files
        writable = std::min<std::uint64_t>(writable, free + device_.longestCount() -
                                                         ext2fs_blocks_count(fs_->super));
    struct statvfs result {};
    result.f_bsize = fs_->blocksize;
    result.f_frsize = fs_->blocksize;
    result.f_blocks = ext2fs_blocks_count(fs_->super) - overhead_;
    result.f_bfree = free;
    result.f_files = fs_->super->s_inodes_count;
    result.f_ffree = fs_->super->s_free_inodes_count;
    if (growth_) {
        // A volume that grows is as large as what is in it and the disk's room together.
        result.f_bfree = writable;
        result.f_blocks -= free;
        result.f_blocks += writable;
        const std::uint64_t grown = writable > free ? writable - free : 0;
        const std::uint64_t inodes =
            grown / EXT2_BLOCKS_PER_GROUP(fs_->super) * EXT2_INODES_PER_GROUP(fs_->super);
        result.f_files += inodes;
        result.f_ffree += inodes;
    }
    // The image is sparse: never promise what the disk beneath does not have.
    result.f_bavail = std::min<std::uint64_t>(result.f_bfree, writable);
    result.f_favail = result.f_ffree;
    result.f_namemax = longestName;
    return result;
}
