#include "Ext4Volume.h"

#include "Ext2Error.h"
#include "Ext2Io.h"
#include "SuperblockVerifier.h"
#include "VolumeVerifier.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace {

/// Contents of this many bytes are on the disk before somebody else would notice the wait.
constexpr std::uint64_t soonSynced = std::uint64_t{1} * 1024 * 1024;
constexpr const char* nameAttribute = "trusted.quillvane.name";

/// Failures of the disk stay what they are; all other codes mean that the volume makes no sense.
void checkStructure(errcode_t code, const char* what) {
    if (code == 0) return;
    const int error = errnoOf(code);
    if (code < 1024 || error == ENOMEM)
        throw std::system_error(error, std::generic_category(), what);
    throw VolumeCorrupt(std::string(what) + ": " + error_message(code));
}

/// Runs `work` on a volume that may be anything: what contradicts itself there is damage.
template <typename Work> void lookAt(Work work) {
    try {
        work();
    } catch (const std::system_error& error) {
        if (error.code().value() != EUCLEAN) throw;
        throw VolumeCorrupt("structure that makes no sense");
    }
}

} // namespace

bool Ext4Volume::needsCheck(BlockDevice& device) {
    verifySuperblock(device);
    BlockCache cache(device);
    ext2_filsys fs = nullptr;
    checkStructure(Ext2Io::open(cache, EXT2_FLAG_64BITS, &fs), "opening the volume");
    const std::unique_ptr<struct_ext2_filsys, void (*)(ext2_filsys)> owner(fs, ext2fs_free);
    return (fs->super->s_state & EXT2_VALID_FS) == 0 || (fs->super->s_state & EXT2_ERROR_FS) != 0 ||
           ext2fs_has_feature_journal_needs_recovery(fs->super) != 0 ||
           fs->super->s_last_orphan != 0;
}

Ext4Volume::Ext4Volume(BlockDevice& device, bool readOnly)
    : device_(device), readOnly_(readOnly), cache_(device) {}

std::unique_ptr<Ext4Volume> Ext4Volume::open(BlockDevice& device, bool readOnly) {
    verifySuperblock(device);
    std::unique_ptr<Ext4Volume> volume(new Ext4Volume(device, readOnly));
    const int access = readOnly ? 0 : EXT2_FLAG_RW;
    checkStructure(Ext2Io::open(volume->cache_, EXT2_FLAG_64BITS | access, &volume->fs_),
                   "opening the volume");
    volume->prepare();
    return volume;
}

void Ext4Volume::prepare() {
    lookAt([this] {
        VolumeVerifier verifier(device_, fs_);
        verifier.checkDescriptors();
        checkStructure(ext2fs_read_bitmaps(fs_), "reading the bitmaps");
        verifier.checkBitmaps();
        verifier.adoptCounts();
        verifier.checkInodes();
    });
    // The spare copies of the superblock change only when the volume's shape does.
    fs_->flags |= EXT2_FLAG_MASTER_SB_ONLY;
    if (!readOnly_) {
        try {
            transactions_ = std::make_unique<Transactions>(device_, cache_, fs_);
        } catch (const JournalUnusable& error) {
            throw VolumeCorrupt(error.what());
        }
        orphans_ = std::make_unique<OrphanList>(fs_);
        growth_.emplace(device_, fs_);
        if (!growth_->possible()) growth_.reset();
    }
    directories_ = std::make_unique<DirectoryCache>(fs_);
    overhead_ = overheadBlocks();
}

Ext4Volume::~Ext4Volume() {
    if (fs_ == nullptr) return;
    try {
        if (directories_) close();
    } catch (const std::exception&) {
        // Whoever wanted to know has called close() before.
    }
    transactions_.reset();
    if (fs_ != nullptr) ext2fs_free(fs_);
}

void Ext4Volume::close() {
    const std::lock_guard lock(mutex_);
    if (fs_ == nullptr) return;
    for (const ext2_ino_t number : std::vector(nameless_.begin(), nameless_.end())) {
        try {
            Ext4Inode inode = load(number);
            freeInode(inode);
        } catch (const std::exception&) {
            suspect_ = true; // everything else is more important
        }
    }
    // A volume that was only read does not say yet that something was wrong.
    if (transactions_ && suspect_) transactions_->begin();
    try {
        if (transactions_) transactions_->end(suspect_);
    } catch (...) {
        contentsMayBeLost();
        throw;
    }
    unsyncedContents_.clear();
    unsyncedBytes_ = 0;
    nameless_.clear();
    if (transactions_) giveRoomBackAtTheEnd();
    transactions_.reset();
    ext2fs_free(fs_);
    fs_ = nullptr;
}

void Ext4Volume::beginChange(std::uint64_t neededBlocks) {
    if (readOnly_) failWith(EROFS);
    unseenTimes_ = 0;
    transactions_->begin();
    makeRoom(neededBlocks);
    commitWhen(transactions_->withholds(neededBlocks));
    unsynced_ = true;
}

/// To be called only where the volume's structure is whole.
void Ext4Volume::commitWhen(bool needed) {
    if (needed || transactions_->full()) commit();
}

void Ext4Volume::commit() {
    if (suspect_ && (fs_->super->s_state & EXT2_ERROR_FS) == 0) {
        fs_->super->s_state |= EXT2_ERROR_FS;
        ext2fs_mark_super_dirty(fs_);
    }
    awaitReaders(); // the commit makes freed blocks available
    try {
        transactions_->commit();
    } catch (...) {
        contentsMayBeLost();
        throw;
    }
    unsyncedContents_.clear();
    unsyncedBytes_ = 0;
}

/// After a failed sync the system takes what it could not write for written, and the next sync
/// succeeds. So whoever syncs one of the files is told.
void Ext4Volume::contentsMayBeLost() {
    if (unsyncedBytes_ > 0) lossUntold_ = true;
    lostContents_.merge(unsyncedContents_);
    unsyncedContents_.clear();
}

void Ext4Volume::noteFailure(int error) {
    const std::lock_guard lock(mutex_);
    if (error == EIO || error == EUCLEAN || error == ENOMEM) suspect_ = true;
}

void Ext4Volume::sync() {
    const std::lock_guard lock(mutex_);
    const bool lost = std::exchange(lossUntold_, false);
    try {
        syncAll();
    } catch (...) {
        lossUntold_ = false; // this is the report
        throw;
    }
    if (lost) failWith(EIO);
}

void Ext4Volume::syncAll() {
    if (!unsynced_) return;
    commit();
    unsynced_ = false;
}

void Ext4Volume::writeBehind() {
    writeChangesBehind();
    giveRoomBack();
}

void Ext4Volume::writeChangesBehind() {
    {
        const std::lock_guard lock(mutex_);
        if (!unsynced_) return;
    }
    syncContents();
    const std::lock_guard lock(mutex_);
    syncAll();
}

/// Waits for the disk without the lock.
void Ext4Volume::syncContents() {
    try {
        device_.syncAhead();
    } catch (...) {
        const std::lock_guard lock(mutex_);
        contentsMayBeLost();
        throw;
    }
}

bool Ext4Volume::syncTakesLong() const noexcept {
    return unsyncedBytes_ > soonSynced;
}

// A file is reachable after a crash only with the structure above it, which is in the same
// transaction.
void Ext4Volume::syncFile(ext2_ino_t inode) {
    std::unique_lock lock(mutex_);
    try {
        if (syncTakesLong()) {
            lock.unlock();
            syncContents();
            lock.lock();
        }
        syncAll();
    } catch (...) {
        if (!lock.owns_lock()) lock.lock();
        lostContents_.erase(inode); // this is the report
        throw;
    }
    if (lostContents_.erase(inode) > 0) failWith(EIO);
}

std::string Ext4Volume::name() {
    const std::lock_guard lock(mutex_);
    if (const auto value = readAttribute(load(root), nameAttribute))
        return {reinterpret_cast<const char*>(value->data()), value->size()};
    const auto* label = reinterpret_cast<const char*>(fs_->super->s_volume_name);
    return {label, ::strnlen(label, sizeof fs_->super->s_volume_name)};
}

void Ext4Volume::setName(std::string_view name) {
    const std::lock_guard lock(mutex_);
    beginChange();
    writeAttribute(load(root), nameAttribute, std::as_bytes(std::span(name)));
}

struct stat Ext4Volume::reference(ext2_ino_t inode) {
    const std::lock_guard lock(mutex_);
    const struct stat attributes = show(load(inode));
    references_.add(inode);
    return attributes;
}

void Ext4Volume::forget(ext2_ino_t inode, std::uint64_t references) {
    const std::lock_guard lock(mutex_);
    references_.remove(inode, references);
    freeIfUnused(inode);
}

void Ext4Volume::freeIfUnused(ext2_ino_t number) {
    if (references_.has(number) || !nameless_.contains(number)) return;
    beginChange();
    Ext4Inode inode = load(number);
    freeInode(inode);
}

bool Ext4Volume::lostContents() {
    const std::lock_guard lock(mutex_);
    return lossUntold_;
}

struct stat Ext4Volume::attributes(ext2_ino_t inode) {
    const std::lock_guard lock(mutex_);
    return show(load(inode));
}

std::uint64_t Ext4Volume::generation(ext2_ino_t inode) {
    const std::lock_guard lock(mutex_);
    return load(inode).raw.i_generation;
}
