#include "VolumeVerifier.h"

#include "Ext2Error.h"
#include "Ext4Inode.h"
#include "FileBlocks.h"
#include "JournalFormat.h"
#include "VolumeError.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>

namespace {

/// What mke2fs makes at most.
constexpr std::uint64_t largestJournal = 10'240'000;
constexpr std::uint64_t smallestJournal = 1024;

[[noreturn]] void corrupt(const std::string& problem) {
    throw VolumeCorrupt(problem);
}

void require(bool condition, const char* problem) {
    if (!condition) corrupt(problem);
}

std::string inGroup(const char* problem, dgrp_t group) {
    return std::string(problem) + " in block group " + std::to_string(group);
}

/// The inode, however it is damaged: a failure of the disk alone stays what it is.
Ext4Inode loadReserved(ext2_filsys fs, ext2_ino_t number, const char* name) {
    try {
        return Ext4Inodes::load(fs, number);
    } catch (const std::system_error& error) {
        if (error.code().value() == EIO || error.code().value() == ENOMEM) throw;
        corrupt(std::string(name) + " cannot be read");
    }
}

/// Bits that are 0 among the first `count`, which are a multiple of 8 but for the volume's end.
std::uint64_t countClear(const std::vector<unsigned char>& bits, std::uint64_t count) {
    std::uint64_t set = 0;
    for (std::uint64_t byte = 0; byte < count / 8; ++byte)
        set += static_cast<unsigned>(std::popcount(bits[byte]));
    if (count % 8 != 0) {
        const auto mask = static_cast<unsigned char>((1U << (count % 8)) - 1);
        set += static_cast<unsigned>(
            std::popcount(static_cast<unsigned char>(bits[count / 8] & mask)));
    }
    return count - set;
}

} // namespace

VolumeVerifier::VolumeVerifier(BlockDevice& device, ext2_filsys fs) : device_(device), fs_(fs) {}

void VolumeVerifier::place(std::uint64_t first, std::uint64_t count) {
    const std::uint64_t blocks = ext2fs_blocks_count(fs_->super);
    require(first < blocks && count <= blocks - first, "structure lies beyond the volume's end");
    structure_.push_back({first, count});
}

void VolumeVerifier::placeSuperblock(dgrp_t group) {
    blk64_t superblock = 0;
    blk64_t oldDescriptors = 0;
    blk64_t newDescriptors = 0;
    check(ext2fs_super_and_bgd_loc2(fs_, group, &superblock, &oldDescriptors, &newDescriptors,
                                    nullptr));
    const std::uint64_t oldCount =
        ext2fs_has_feature_meta_bg(fs_->super) != 0
            ? fs_->super->s_first_meta_bg
            : fs_->desc_blocks + std::uint64_t{fs_->super->s_reserved_gdt_blocks};
    if (superblock != 0 || group == 0) place(superblock, 1);
    if (oldDescriptors != 0 && oldCount != 0) place(oldDescriptors, oldCount);
    if (newDescriptors != 0) place(newDescriptors, 1);
}

void VolumeVerifier::checkDescriptor(dgrp_t group) {
    if (ext2fs_group_desc_csum_verify(fs_, group) == 0)
        corrupt(inGroup("wrong checksum of the descriptor", group));
    const std::array<Range, 3> parts{
        {{ext2fs_block_bitmap_loc(fs_, group), 1},
         {ext2fs_inode_bitmap_loc(fs_, group), 1},
         {ext2fs_inode_table_loc(fs_, group), fs_->inode_blocks_per_group}}};
    for (const Range& part : parts) {
        place(part.first, part.count);
        if (ext2fs_has_feature_flex_bg(fs_->super) == 0 &&
            (part.first < ext2fs_group_first_block2(fs_, group) ||
             part.first + part.count - 1 > ext2fs_group_last_block2(fs_, group)))
            corrupt(inGroup("structure out of place", group));
    }
    if (ext2fs_bg_itable_unused(fs_, group) > fs_->super->s_inodes_per_group ||
        ext2fs_bg_used_dirs_count(fs_, group) > fs_->super->s_inodes_per_group)
        corrupt(inGroup("wrong counts", group));
}

void VolumeVerifier::requireApart(std::vector<Range>& ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& one, const Range& other) { return one.first < other.first; });
    for (std::size_t i = 1; i < ranges.size(); ++i)
        require(ranges[i].first - ranges[i - 1].first >= ranges[i - 1].count,
                "parts of the structure overlap");
}

void VolumeVerifier::checkDescriptors() {
    structure_.clear();
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        placeSuperblock(group);
        checkDescriptor(group);
    }
    requireApart(structure_);
}

void VolumeVerifier::requireTaken(const Range& range) {
    blk64_t found = 0;
    const errcode_t code = ext2fs_find_first_zero_block_bitmap2(
        fs_->block_map, range.first, range.first + range.count - 1, &found);
    require(code == ENOENT, "blocks of the structure are marked as free");
}

std::uint64_t VolumeVerifier::freeBlocksIn(dgrp_t group) {
    const blk64_t first = ext2fs_group_first_block2(fs_, group);
    const std::uint64_t count = ext2fs_group_last_block2(fs_, group) - first + 1;
    std::vector<unsigned char> bits(fs_->blocksize);
    check(ext2fs_get_block_bitmap_range2(fs_->block_map, first, count, bits.data()));
    return countClear(bits, count);
}

std::uint64_t VolumeVerifier::freeInodesIn(dgrp_t group) {
    const std::uint64_t count = fs_->super->s_inodes_per_group;
    std::vector<unsigned char> bits(fs_->blocksize);
    check(ext2fs_get_inode_bitmap_range2(fs_->inode_map, group * count + 1, count, bits.data()));
    return countClear(bits, count);
}

void VolumeVerifier::checkBitmaps() {
    for (const Range& range : structure_) requireTaken(range);
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        if (freeBlocksIn(group) != ext2fs_bg_free_blocks_count(fs_, group) ||
            freeInodesIn(group) != ext2fs_bg_free_inodes_count(fs_, group))
            corrupt(inGroup("wrong counts", group));
    }
    for (ext2_ino_t inode = 1; inode < EXT2_FIRST_INODE(fs_->super); ++inode)
        require(ext2fs_test_inode_bitmap2(fs_->inode_map, inode) != 0,
                "a reserved inode is marked as free");
}

void VolumeVerifier::adoptCounts() {
    std::uint64_t freeBlocks = 0;
    std::uint64_t freeInodes = 0;
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        freeBlocks += ext2fs_bg_free_blocks_count(fs_, group);
        freeInodes += ext2fs_bg_free_inodes_count(fs_, group);
    }
    ext2fs_free_blocks_count_set(fs_->super, freeBlocks);
    fs_->super->s_free_inodes_count = static_cast<__u32>(freeInodes);
}

void VolumeVerifier::checkInodes() {
    checkReservedInodes();
    if (ext2fs_has_feature_journal(fs_->super) != 0) checkJournal();
    checkRoot();
}

/// Those that nobody uses are empty, so only their checksums can be wrong.
void VolumeVerifier::checkReservedInodes() {
    for (ext2_ino_t number = 1; number < EXT2_FIRST_INODE(fs_->super); ++number) {
        Ext4Inode inode;
        const errcode_t code = ext2fs_read_inode_full(fs_, number, inode.base(), sizeof inode.raw);
        if (code == EXT2_ET_INODE_CSUM_INVALID)
            corrupt("wrong checksum of the reserved inode " + std::to_string(number));
        check(code);
    }
}

void VolumeVerifier::checkJournal() {
    Ext4Inode inode = loadReserved(fs_, fs_->super->s_journal_inum, "the journal");
    const std::uint64_t blocks = inode.size() / fs_->blocksize;
    require(inode.isRegular() && inode.raw.i_links_count > 0 && blocks >= smallestJournal &&
                blocks <= largestJournal && blocks < ext2fs_blocks_count(fs_->super),
            "the journal's inode makes no sense");
    std::vector<Range> ranges = structure_;
    FileBlocks map(fs_, inode);
    std::uint64_t first = 0;
    for (std::uint64_t at = 0; at < blocks;) {
        const FileBlocks::Run run = map.find(at, blocks - at);
        require(run.kind == FileBlocks::Kind::data, "the journal has holes");
        require(run.physical < ext2fs_blocks_count(fs_->super) &&
                    run.count <= ext2fs_blocks_count(fs_->super) - run.physical,
                "the journal lies beyond the volume's end");
        if (at == 0) first = run.physical;
        ranges.push_back({run.physical, run.count});
        requireTaken(ranges.back());
        at += run.count;
    }
    requireApart(ranges);
    checkJournalSuperblock(first);
}

void VolumeVerifier::checkJournalSuperblock(std::uint64_t block) {
    using namespace JournalFormat;
    alignas(Superblock) std::array<std::byte, BlockDevice::blockSize> bytes{};
    device_.read(block, bytes);
    auto& super = *reinterpret_cast<Superblock*>(bytes.data());
    require(super.header.magicNumber == magic, "the journal has no superblock");
    if ((super.incompatible & (withChecksums2 | withChecksums3)) == 0) return;
    const std::uint32_t stored = super.checksum;
    super.checksum = 0;
    require(stored == ext2fs_crc32c_le(checksumSeed, reinterpret_cast<unsigned char*>(&super),
                                       sizeof super),
            "the checksum of the journal's superblock is wrong");
}

void VolumeVerifier::checkRoot() {
    Ext4Inode root = loadReserved(fs_, EXT2_ROOT_INO, "the root directory");
    require(root.isDirectory() && root.raw.i_links_count > 0 && root.size() > 0 &&
                root.size() % fs_->blocksize == 0,
            "the root directory's inode makes no sense");
    const FileBlocks::Run run = FileBlocks(fs_, root).find(0, 1);
    require(run.kind == FileBlocks::Kind::data, "the root directory begins with a hole");
    alignas(ext2_dir_entry) std::array<char, BlockDevice::blockSize> block{};
    const errcode_t code =
        ext2fs_read_dir_block4(fs_, run.physical, block.data(), 0, EXT2_ROOT_INO);
    if (code == EXT2_ET_DIR_CSUM_INVALID || code == EXT2_ET_DIR_CORRUPTED)
        corrupt("the root directory's first block is damaged");
    check(code);
    const auto* self = reinterpret_cast<const ext2_dir_entry*>(block.data());
    require(self->inode == EXT2_ROOT_INO && ext2fs_dirent_name_len(self) == 1 &&
                self->name[0] == '.' && self->rec_len >= 12 && self->rec_len <= 24,
            "the root directory does not begin with itself");
}
