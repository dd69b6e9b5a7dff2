#include "Transactions.h"

#include "Ext2Error.h"
#include "FileBlocks.h"

#include <algorithm>
#include <ctime>
#include <system_error>

namespace {

/// Structure that each commit writes besides bitmaps and blocks already counted.
constexpr std::size_t superblocks = 16;
/// Spare superblocks are in the groups 1, 3, 5, 7 and their powers.
constexpr std::size_t mostSpareSuperblocks = 48;
/// Of each block of descriptors that lies among the groups.
constexpr std::size_t descriptorCopies = 3;

std::optional<Journal> openJournal(BlockDevice& device, ext2_filsys fs) {
    if (ext2fs_has_feature_journal(fs->super) == 0) return std::nullopt;
    Ext4Inode inode = Ext4Inodes::load(fs, fs->super->s_journal_inum);
    std::vector<std::uint64_t> blocks(inode.size() / fs->blocksize);
    FileBlocks map(fs, inode);
    for (std::size_t at = 0; at < blocks.size();) {
        const FileBlocks::Run run = map.find(at, blocks.size() - at);
        if (run.kind != FileBlocks::Kind::data) throw JournalUnusable("the journal has holes");
        for (std::uint64_t i = 0; i < run.count; ++i) blocks[at++] = run.physical + i;
    }
    return std::make_optional<Journal>(device, std::move(blocks),
                                       ext2fs_has_feature_64bit(fs->super) != 0);
}

} // namespace

Transactions::Transactions(BlockDevice& device, BlockCache& cache, ext2_filsys fs)
    : device_(device), cache_(cache), fs_(fs), journal_(openJournal(device, fs)), use_(fs),
      freeRoom_(device, fs) {}

// A volume with a journal stays marked as valid: it needs a replay, not a check.
void Transactions::begin() {
    if (inUse_) return settleLate();
    reserveBitmaps();
    if (journal_)
        ext2fs_set_feature_journal_needs_recovery(fs_->super);
    else
        fs_->super->s_state &= static_cast<__u16>(~EXT2_VALID_FS);
    if (!marked_) {
        fs_->super->s_mtime = static_cast<__u32>(::time(nullptr));
        fs_->super->s_mnt_count++;
    }
    ext2fs_mark_super_dirty(fs_);
    marked_ = true;
    writeStructure();
    cache_.flush(true);
    noteCommitted();
    if (journal_) journal_->start();
    inUse_ = true;
}

/// The bitmaps are changed only when they are committed, and the disk may be full by then.
void Transactions::reserveBitmaps() {
    std::vector<blk64_t> blocks;
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        blocks.push_back(ext2fs_block_bitmap_loc(fs_, group));
        blocks.push_back(ext2fs_inode_bitmap_loc(fs_, group));
    }
    std::sort(blocks.begin(), blocks.end());
    for (std::size_t first = 0; first < blocks.size();) {
        std::size_t last = first + 1;
        while (last < blocks.size() && blocks[last] == blocks[last - 1] + 1) ++last;
        device_.reserve(blocks[first], last - first);
        first = last;
    }
}

bool Transactions::full() const noexcept {
    if (cache_.changedCount() > BlockCache::changedLimit) return true;
    // An operation may go over the limit by what it changes itself: half of the log is always free,
    // and the most scattered write of a mebibyte changes 256 bitmaps, of the 512 blocks that are
    // half of the smallest log.
    const std::size_t changed = cache_.changedCount() + use_.changedBitmaps() + descriptorBlocks() +
                                superblocks + (shapeChanged_ ? mostSpareSuperblocks : 0);
    return journal_ && changed > journal_->size() / 5;
}

/// How many blocks of descriptors the next commit writes at most.
std::size_t Transactions::descriptorBlocks() const noexcept {
    const std::size_t all = fs_->desc_blocks;
    const std::size_t changed = shapeChanged_ ? all : std::min(all, use_.changedBitmaps());
    return ext2fs_has_feature_meta_bg(fs_->super) != 0 ? changed * descriptorCopies : changed;
}

void Transactions::grown(dgrp_t firstGroup) {
    use_.noteGrowth(firstGroup);
    shapeChanged_ = true;
}

bool Transactions::withholds(std::uint64_t neededBlocks) const noexcept {
    const std::uint64_t withheld = use_.freedCount();
    return withheld > 0 &&
           ext2fs_free_blocks_count(fs_->super) < withheld + neededBlocks + spareBlocks;
}

void Transactions::commit() {
    if (!inUse_) return;
    settleLate();
    try {
        if (!structureChanged()) {
            device_.sync(); // of the contents
        } else if (journal_) {
            commitToJournal();
        } else {
            writeStructure();
            dropFreed();
            cache_.flush(true);
        }
    } catch (...) {
        use_.failed();
        throw;
    }
    noteCommitted();
    if (journal_ && mustSettle()) settle();
}

bool Transactions::structureChanged() const noexcept {
    return cache_.changedCount() > 0 || use_.changedBitmaps() > 0 || shapeChanged_ ||
           (fs_->flags & EXT2_FLAG_DIRTY) != 0;
}

/// After a failure, as soon as nothing is changed: commits that went on meanwhile would use up the
/// log.
void Transactions::settleLate() {
    if (unsettled_ && cache_.changedCount() == 0) settle();
}

/// Brings what libext2fs holds in memory into the cache.
void Transactions::writeStructure() {
    use_.writeBitmaps();
    if (shapeChanged_) fs_->flags &= ~EXT2_FLAG_MASTER_SB_ONLY;
    const auto features = fs_->super->s_feature_incompat;
    const errcode_t code = ext2fs_flush(fs_);
    fs_->flags |= EXT2_FLAG_MASTER_SB_ONLY;
    // After a failure libext2fs 1.47.0 leaves it as in the spare copies, without "needs recovery".
    fs_->super->s_feature_incompat = features;
    check(code);
}

/// Everything that `writeStructure` wrote is on the disk.
void Transactions::noteCommitted() {
    for (const BlockUse::Range& range : use_.committed()) freeRoom_.note(range.first, range.count);
    shapeChanged_ = false;
}

void Transactions::commitToJournal() {
    writeStructure();
    const std::vector<std::uint64_t> revoked = dropFreed();
    std::vector<Journal::Change> changes;
    for (const BlockCache::Change& change : cache_.changes())
        changes.push_back({change.block, change.contents});
    // Before: a commit that fails may be in the log all the same.
    for (const Journal::Change& change : changes) logged_.insert(change.block);
    journal_->commit(changes, revoked);
    for (const std::uint64_t block : revoked) logged_.erase(block);
    cache_.committed();
}

/// Forgets what freed blocks held. Answers those of which a replay would restore a copy, over
/// whatever they will hold by then.
std::vector<std::uint64_t> Transactions::dropFreed() {
    std::vector<std::uint64_t> revoked;
    for (const BlockUse::Range& range : use_.freed()) {
        cache_.forget(range.first, range.count);
        for (std::uint64_t block = range.first; block < range.first + range.count; ++block)
            if (logged_.contains(block)) revoked.push_back(block);
    }
    return revoked;
}

bool Transactions::mustSettle() const noexcept {
    return cache_.owedCount() > BlockCache::owedLimit || journal_->room() < journal_->size() / 2;
}

/// Brings all committed blocks to their places and gives up the log. Just after a commit, when no
/// block has changes that are not committed.
void Transactions::settle() {
    unsettled_ = true;
    cache_.flush(true);
    journal_->clear();
    logged_.clear();
    unsettled_ = false;
}

void Transactions::end(bool suspect) {
    if (!marked_) return;
    if (inUse_) {
        commit();
        if (journal_) {
            cache_.flush(true);
            journal_->stop();
            logged_.clear();
        }
        inUse_ = false;
    }
    markClean(suspect);
    marked_ = false;
}

void Transactions::markClean(bool suspect) {
    ext2_super_block& super = *fs_->super;
    const auto stateBefore = super.s_state;
    const auto featuresBefore = super.s_feature_incompat;
    ext2fs_clear_feature_journal_needs_recovery(&super);
    if (!journal_) super.s_state |= EXT2_VALID_FS;
    if (suspect) super.s_state |= EXT2_ERROR_FS;
    ext2fs_mark_super_dirty(fs_);
    try {
        writeStructure();
        cache_.flush(true);
    } catch (...) {
        super.s_state = stateBefore;
        super.s_feature_incompat = featuresBefore;
        ext2fs_mark_super_dirty(fs_);
        throw;
    }
}
