#pragma once

#include "BlockCache.h"
#include "BlockUse.h"
#include "FreeRoom.h"
#include "Journal.h"

#include <ext2fs/ext2fs.h>

#include <optional>
#include <unordered_set>

/// Brings a volume's changes of structure to the disk so that a crash cannot tear them.
///
/// All that was changed between two commits becomes one transaction of the volume's journal, with
/// the contents of files on the disk before it. So a commit may happen only between operations, or
/// where an operation has reached a state that a volume may be found in. Later the changed blocks
/// go to their places, all at once and just after a commit, when the log or the memory is half
/// full. A volume without a journal is marked as in use, and its changes just written.
///
/// The owner holds the volume's lock. Failures are `std::system_error`; nothing is lost by one, and
/// the next call tries again.
class Transactions {
public:
    /// All must outlive the object. Throws `JournalUnusable`.
    Transactions(BlockDevice& device, BlockCache& cache, ext2_filsys fs);

    /// Before the first change, and again after `end`: the volume tells on the disk that it is in
    /// use. Costs nothing when it does already.
    void begin();
    /// Whether so much has changed that it should be committed before any more is.
    bool full() const noexcept;
    /// Free blocks that an operation may need besides those it asks for.
    static constexpr std::uint64_t spareBlocks = 2048;
    /// Free blocks that are not to be had before the next commit.
    std::uint64_t withheld() const noexcept { return use_.freedCount(); }
    /// Whether an operation might find no free blocks because those freed are not committed.
    bool withholds(std::uint64_t neededBlocks) const noexcept;
    /// Returns when all changes are on the disk.
    void commit();
    /// Commits, brings everything to its place, and tells on the disk that the volume is not in
    /// use; with `suspect`, that it is to be checked.
    void end(bool suspect);
    void noteInode(ext2_ino_t inode) { use_.noteInode(inode); }
    /// To be told when the volume has become longer, from this group on.
    void grown(dgrp_t firstGroup);
    /// Knows what was freed, once that is committed. A volume without a journal keeps its room.
    FreeRoom& freeRoom() noexcept { return freeRoom_; }

private:
    void reserveBitmaps();
    bool structureChanged() const noexcept;
    void writeStructure();
    void commitToJournal();
    void settle();
    void settleLate();
    void noteCommitted();
    std::size_t descriptorBlocks() const noexcept;
    std::vector<std::uint64_t> dropFreed();
    void markClean(bool suspect);
    bool mustSettle() const noexcept;

    BlockDevice& device_;
    BlockCache& cache_;
    ext2_filsys fs_;
    std::optional<Journal> journal_;
    BlockUse use_;
    FreeRoom freeRoom_;
    bool shapeChanged_ = false; ///< so the spare superblocks are to be written, too
    /// Blocks of which the log has copies that a replay would use.
    std::unordered_set<std::uint64_t> logged_;
    bool marked_ = false;    ///< the volume on the disk says that it is in use
    bool unsettled_ = false; ///< the last attempt to give up the log failed
    bool inUse_ = false;     ///< and the journal, if there is one, takes transactions
};
