#include "FileBlocks.h"

#include "BlockUse.h"
#include "Ext2Error.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr std::uint64_t longestData = EXT_INIT_MAX_LEN;
constexpr std::uint64_t longestUnwritten = EXT_UNINIT_MAX_LEN;
/// Requests of at least this many blocks first look for one free row that holds them all.
constexpr std::uint64_t worthOneRow = 16;
/// What is freed at once: extents, each of which may change a bitmap; blocks of a block list, a
/// thousand of which hang on one indirect block.
constexpr unsigned mostCuts = 64;
constexpr std::uint64_t leastListed = 65536;

/// Whatever a damaged file says, nothing outside the volume is its.
void requirePlace(ext2_filsys fs, std::uint64_t physical, std::uint64_t count) {
    const std::uint64_t blocks = ext2fs_blocks_count(fs->super);
    if (physical == 0 || physical >= blocks || count == 0 || count > blocks - physical)
        failWith(EUCLEAN);
}

bool isUnwritten(const ext2fs_extent& extent) {
    return (extent.e_flags & EXT2_EXTENT_FLAGS_UNINIT) != 0;
}

} // namespace

FileBlocks::~FileBlocks() {
    if (handle_ != nullptr) ext2fs_extent_free(handle_);
}

ext2_extent_handle_t FileBlocks::handle() {
    if (handle_ == nullptr) check(ext2fs_extent_open2(fs_, inode_.number, inode_.base(), &handle_));
    return handle_;
}

/// Puts the handle on the extent that holds `logical`, or else on the first one behind it.
std::optional<ext2fs_extent> FileBlocks::seek(std::uint64_t logical) {
    ext2fs_extent extent{};
    const errcode_t found = ext2fs_extent_goto(handle(), logical);
    if (found != 0 && found != EXT2_ET_EXTENT_NOT_FOUND) check(found);
    const errcode_t code = ext2fs_extent_get(handle_, EXT2_EXTENT_CURRENT, &extent);
    if (code == EXT2_ET_NO_CURRENT_NODE) return std::nullopt; // the file has no blocks at all
    check(code);
    requirePlace(fs_, extent.e_pblk, extent.e_len);
    if (found == 0 || extent.e_lblk > logical) return extent;
    return following();
}

/// Moves the handle to the next extent. EXT2_EXTENT_NEXT_LEAF does not serve: after a goto it turns
/// back to the beginning of the last leaf.
std::optional<ext2fs_extent> FileBlocks::following() {
    ext2fs_extent extent{};
    errcode_t code = ext2fs_extent_get(handle_, EXT2_EXTENT_NEXT_SIB, &extent);
    while (code == EXT2_ET_EXTENT_NO_NEXT) {
        code = ext2fs_extent_get(handle_, EXT2_EXTENT_UP, &extent);
        if (code == EXT2_ET_EXTENT_NO_UP) return std::nullopt;
        check(code);
        code = ext2fs_extent_get(handle_, EXT2_EXTENT_NEXT_SIB, &extent);
    }
    check(code);
    while ((extent.e_flags & EXT2_EXTENT_FLAGS_LEAF) == 0)
        check(ext2fs_extent_get(handle_, EXT2_EXTENT_DOWN, &extent));
    requirePlace(fs_, extent.e_pblk, extent.e_len);
    return extent;
}

FileBlocks::Run FileBlocks::find(std::uint64_t logical, std::uint64_t limit) {
    Run run{Kind::hole, logical, 0, limit};
    if (!inode_.usesExtents()) {
        blk64_t physical = 0;
        check(ext2fs_bmap2(fs_, inode_.number, inode_.base(), nullptr, 0, logical, nullptr,
                           &physical));
        run.count = std::min<std::uint64_t>(limit, 1);
        if (physical == 0) return run;
        requirePlace(fs_, physical, run.count);
        return {Kind::data, logical, physical, run.count};
    }
    const auto extent = seek(logical);
    if (!extent) return run;
    if (extent->e_lblk > logical) {
        run.count = std::min<std::uint64_t>(limit, extent->e_lblk - logical);
        return run;
    }
    const std::uint64_t within = logical - extent->e_lblk;
    run.kind = isUnwritten(*extent) ? Kind::unwritten : Kind::data;
    run.physical = extent->e_pblk + within;
    run.count = std::min<std::uint64_t>(limit, extent->e_len - within);
    return run;
}

FileBlocks::Run FileBlocks::allocate(std::uint64_t logical, std::uint64_t count) {
    // A block list is changed block by block, and could not go back in the middle of a run.
    count = inode_.usesExtents() ? std::min(count, longestUnwritten) : 1;
    const blk64_t goal = ext2fs_find_inode_goal(fs_, inode_.number, inode_.base(), logical);
    blk64_t physical = 0;
    blk64_t got = 0;
    errcode_t code = EXT2_ET_BLOCK_ALLOC_FAIL;
    if (count >= worthOneRow)
        code =
            ext2fs_new_range(fs_, EXT2_NEWRANGE_MIN_LENGTH, goal, count, nullptr, &physical, &got);
    if (code == EXT2_ET_BLOCK_ALLOC_FAIL)
        code = ext2fs_new_range(fs_, 0, goal, count, nullptr, &physical, &got);
    check(code);
    got = std::min<blk64_t>(got, count);
    BlockUse::setRange(fs_, physical, got, +1);
    return {Kind::data, logical, physical, got};
}

void FileBlocks::release(const Run& run) {
    BlockUse::setRange(fs_, run.physical, run.count, -1);
}

void FileBlocks::insert(const Run& run) {
    if (inode_.usesExtents()) {
        insertExtent(run);
    } else {
        blk64_t physical = run.physical;
        check(ext2fs_bmap2(fs_, inode_.number, inode_.base(), nullptr, BMAP_SET | BMAP_ALLOC,
                           run.logical, nullptr, &physical));
    }
    check(ext2fs_iblk_add_blocks(fs_, inode_.base(), run.count));
}

/// Lengthens the extent `left`, at which the handle stands, when `run` continues it.
bool FileBlocks::growLeft(const Run& run, const ext2fs_extent& left) {
    const bool unwritten = run.kind == Kind::unwritten;
    if (left.e_lblk + left.e_len != run.logical || left.e_pblk + left.e_len != run.physical ||
        isUnwritten(left) != unwritten ||
        left.e_len + run.count > (unwritten ? longestUnwritten : longestData))
        return false;
    ext2fs_extent longer = left;
    longer.e_len += static_cast<__u32>(run.count);
    check(ext2fs_extent_replace(handle_, 0, &longer));
    return true;
}

void FileBlocks::insertExtent(const Run& run) {
    ext2fs_extent extent{};
    extent.e_lblk = run.logical;
    extent.e_pblk = run.physical;
    extent.e_len = static_cast<__u32>(run.count);
    extent.e_flags = EXT2_EXTENT_FLAGS_LEAF;
    if (run.kind == Kind::unwritten) extent.e_flags |= EXT2_EXTENT_FLAGS_UNINIT;

    const errcode_t found = ext2fs_extent_goto(handle(), run.logical);
    if (found == 0) failWith(EUCLEAN); // the caller saw a hole here
    if (found != EXT2_ET_EXTENT_NOT_FOUND) check(found);
    ext2fs_extent near{};
    int place = 0;
    const errcode_t code = ext2fs_extent_get(handle_, EXT2_EXTENT_CURRENT, &near);
    if (code == 0 && near.e_lblk < run.logical) {
        if (growLeft(run, near)) return;
        place = EXT2_EXTENT_INSERT_AFTER;
    } else if (code != 0 && code != EXT2_ET_NO_CURRENT_NODE) {
        check(code);
    }
    check(ext2fs_extent_insert(handle_, place, &extent));
    check(ext2fs_extent_fix_parents(handle_));
}

// ext2fs_extent_set_bmap of libext2fs 1.47.0 would do, but loses a block now and then where it
// splits a node of the tree. Here every step leaves the tree whole, so that a full disk may end it
// anywhere.
void FileBlocks::markWritten(const Run& run) {
    const std::uint64_t end = run.logical + run.count;
    splitAt(run.logical);
    splitAt(end);
    for (std::uint64_t at = run.logical; at < end;) {
        auto extent = seek(at);
        if (!extent || extent->e_lblk != at) failWith(EUCLEAN); // the caller saw a run here
        const std::uint64_t next = at + extent->e_len;
        if (!joinLeft(*extent)) {
            extent->e_flags &= ~static_cast<__u32>(EXT2_EXTENT_FLAGS_UNINIT);
            check(ext2fs_extent_replace(handle_, 0, &*extent));
        }
        at = next;
    }
}

/// Makes two extents of the one that holds both `logical` and the block before it.
void FileBlocks::splitAt(std::uint64_t logical) {
    const auto extent = seek(logical);
    if (!extent || extent->e_lblk >= logical) return;
    ext2fs_extent first = *extent;
    first.e_len = static_cast<__u32>(logical - extent->e_lblk);
    ext2fs_extent second = *extent;
    second.e_lblk = logical;
    second.e_pblk += first.e_len;
    second.e_len -= first.e_len;
    check(ext2fs_extent_insert(handle_, EXT2_EXTENT_INSERT_AFTER, &second));
    check(ext2fs_extent_fix_parents(handle_));
    check(ext2fs_extent_goto(handle_, first.e_lblk));
    check(ext2fs_extent_replace(handle_, 0, &first));
}

/// Makes an unwritten extent, at which the handle stands, part of the data that lies before it, in
/// the file and on the disk. Answers whether that was possible.
bool FileBlocks::joinLeft(const ext2fs_extent& extent) {
    if (extent.e_lblk == 0) return false;
    auto left = seek(extent.e_lblk - 1);
    const bool fits = left && !isUnwritten(*left) && left->e_lblk + left->e_len == extent.e_lblk &&
                      left->e_pblk + left->e_len == extent.e_pblk &&
                      left->e_len + extent.e_len <= longestData;
    check(ext2fs_extent_goto(handle_, extent.e_lblk));
    if (!fits) return false;
    check(ext2fs_extent_delete(handle_, 0));
    const errcode_t code = ext2fs_extent_fix_parents(handle_);
    if (code != EXT2_ET_NO_CURRENT_NODE) check(code);
    check(ext2fs_extent_goto(handle_, left->e_lblk));
    left->e_len += extent.e_len;
    check(ext2fs_extent_replace(handle_, 0, &*left));
    return true;
}

// ext2fs_punch of libext2fs 1.47.0 refuses an extent that ends with the volume's last block, so
// extents are cut here.
std::uint64_t FileBlocks::punchSome(std::uint64_t first, std::uint64_t last) {
    if (!inode_.usesExtents()) {
        // Ever larger pieces, as there is no telling where the file's last block is.
        const std::uint64_t end = std::min(last, first + std::max(first, leastListed) - 1);
        check(ext2fs_punch(fs_, inode_.number, inode_.base(), nullptr, first, end));
        return end + 1;
    }
    std::uint64_t at = first;
    for (unsigned cuts = 0; at <= last && cuts < mostCuts; ++cuts) {
        const auto extent = seek(at);
        if (!extent || extent->e_lblk > last) return last + 1;
        const std::uint64_t from = std::max<std::uint64_t>(at, extent->e_lblk);
        const std::uint64_t to = std::min<std::uint64_t>(last, extent->e_lblk + extent->e_len - 1);
        cut(*extent, from, to);
        at = to + 1;
    }
    return at;
}

/// Takes the blocks from `from` to `to` out of `extent`, on which the handle stands.
void FileBlocks::cut(const ext2fs_extent& extent, std::uint64_t from, std::uint64_t to) {
    const std::uint64_t before = from - extent.e_lblk;
    const std::uint64_t after = extent.e_lblk + extent.e_len - 1 - to;
    ext2fs_extent rest = extent;
    rest.e_lblk = to + 1;
    rest.e_pblk = extent.e_pblk + extent.e_len - after;
    rest.e_len = static_cast<__u32>(after);
    if (before == 0 && after == 0) {
        check(ext2fs_extent_delete(handle_, 0));
    } else if (before == 0) {
        check(ext2fs_extent_replace(handle_, 0, &rest));
    } else {
        if (after > 0) {
            check(ext2fs_extent_insert(handle_, EXT2_EXTENT_INSERT_AFTER, &rest));
            check(ext2fs_extent_fix_parents(handle_));
            check(ext2fs_extent_goto(handle_, extent.e_lblk));
        }
        ext2fs_extent kept = extent;
        kept.e_len = static_cast<__u32>(before);
        check(ext2fs_extent_replace(handle_, 0, &kept));
    }
    const errcode_t code = ext2fs_extent_fix_parents(handle_);
    if (code != EXT2_ET_NO_CURRENT_NODE) check(code); // the last extent may be gone
    release({Kind::data, from, extent.e_pblk + before, to - from + 1});
    check(ext2fs_iblk_sub_blocks(fs_, inode_.base(), to - from + 1));
}
