#include "SuperblockVerifier.h"

#include "VolumeError.h"

#include <ext2fs/ext2fs.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

namespace {

constexpr std::uint64_t blockSize = BlockDevice::blockSize;
constexpr __u32 logOfBlockSize = 2; // 1024 << 2
constexpr __u32 largestLogOfBlockSize = EXT2_MAX_BLOCK_LOG_SIZE - EXT2_MIN_BLOCK_LOG_SIZE;
constexpr __u32 bitsPerBlock = blockSize * 8;
constexpr std::uint64_t fewestBlocks = 64;
/// 256 TiB in groups of the usual size, and 128 MiB of descriptors in memory.
constexpr std::uint64_t mostGroups = 1U << 21;
constexpr unsigned smallestInode = 256;
constexpr unsigned smallestWideDescriptor = 64;
constexpr unsigned largestDescriptor = 1024;

/// What the code here understands of an ext4's features that change how it is written.
constexpr __u32 knownIncompatible =
    EXT2_FEATURE_INCOMPAT_FILETYPE | EXT3_FEATURE_INCOMPAT_RECOVER | EXT2_FEATURE_INCOMPAT_META_BG |
    EXT3_FEATURE_INCOMPAT_EXTENTS | EXT4_FEATURE_INCOMPAT_64BIT | EXT4_FEATURE_INCOMPAT_FLEX_BG |
    EXT4_FEATURE_INCOMPAT_CSUM_SEED | EXT4_FEATURE_INCOMPAT_LARGEDIR;
constexpr __u32 knownReadOnlyCompatible =
    EXT2_FEATURE_RO_COMPAT_SPARSE_SUPER | EXT2_FEATURE_RO_COMPAT_LARGE_FILE |
    EXT4_FEATURE_RO_COMPAT_HUGE_FILE | EXT4_FEATURE_RO_COMPAT_GDT_CSUM |
    EXT4_FEATURE_RO_COMPAT_DIR_NLINK | EXT4_FEATURE_RO_COMPAT_EXTRA_ISIZE |
    EXT4_FEATURE_RO_COMPAT_METADATA_CSUM;

void require(bool condition, const char* problem) {
    if (!condition) throw VolumeCorrupt(problem);
}

void requireSupported(bool condition, const char* problem) {
    if (!condition) throw VolumeNotSupported(problem);
}

// The structure is used as it lies on the disk: everything here runs on little-endian machines.
ext2_super_block readSuperblock(BlockDevice& device) {
    require(device.blockCount() > 0, "no volume in it");
    std::array<std::byte, blockSize> block{};
    device.read(0, block);
    ext2_super_block super{};
    std::memcpy(&super, block.data() + SUPERBLOCK_OFFSET, sizeof super);
    return super;
}

bool checksumIsRight(ext2_super_block& super) {
    if (ext2fs_has_feature_metadata_csum(&super) == 0) return true;
    return super.s_checksum_type == EXT2_CRC32C_CHKSUM &&
           super.s_checksum == ext2fs_crc32c_le(~0U, reinterpret_cast<unsigned char*>(&super),
                                                offsetof(ext2_super_block, s_checksum));
}

void checkFeatures(ext2_super_block& super) {
    requireSupported((super.s_feature_incompat & ~knownIncompatible) == 0 &&
                         (super.s_feature_ro_compat & ~knownReadOnlyCompatible) == 0,
                     "the volume uses features that are not supported");
    require(super.s_rev_level == EXT2_DYNAMIC_REV, "the superblock's revision is unknown");
    require(super.s_log_block_size <= largestLogOfBlockSize, "the block size makes no sense");
    requireSupported(super.s_log_block_size == logOfBlockSize,
                     "the volume's blocks are not of 4096 bytes");
    // Smaller inodes have no room for nanoseconds and times of creation.
    requireSupported(super.s_inode_size != EXT2_GOOD_OLD_INODE_SIZE,
                     "the volume's inodes are smaller than 256 bytes");
    requireSupported(ext2fs_has_feature_journal(&super) == 0 || super.s_journal_inum != 0,
                     "the volume's journal lies on another device");
}

void checkBlocks(ext2_super_block& super, std::uint64_t deviceBlocks) {
    const std::uint64_t blocks = ext2fs_blocks_count(&super);
    require(blocks >= fewestBlocks && blocks <= deviceBlocks, "the volume's length makes no sense");
    require(super.s_first_data_block == 0 && super.s_log_cluster_size == super.s_log_block_size,
            "the volume's first block or clusters make no sense");
    require(super.s_blocks_per_group % 8 == 0 && super.s_blocks_per_group >= fewestBlocks &&
                super.s_blocks_per_group <= bitsPerBlock &&
                super.s_clusters_per_group == super.s_blocks_per_group,
            "the size of block groups makes no sense");
    require(ext2fs_free_blocks_count(&super) <= blocks && ext2fs_r_blocks_count(&super) <= blocks,
            "the volume has more free blocks than blocks");
}

void checkGroups(ext2_super_block& super) {
    const std::uint64_t groups =
        (ext2fs_blocks_count(&super) + super.s_blocks_per_group - 1) / super.s_blocks_per_group;
    require(groups <= mostGroups, "the volume has too many block groups");
    const bool wide = ext2fs_has_feature_64bit(&super) != 0;
    require(!wide || (std::has_single_bit(super.s_desc_size) &&
                      super.s_desc_size >= smallestWideDescriptor &&
                      super.s_desc_size <= largestDescriptor),
            "the size of group descriptors makes no sense");
    const std::uint64_t descriptorBlocks =
        (groups * EXT2_DESC_SIZE(&super) + blockSize - 1) / blockSize;
    require(super.s_reserved_gdt_blocks <= blockSize / sizeof(__u32) &&
                1 + descriptorBlocks + super.s_reserved_gdt_blocks < super.s_blocks_per_group,
            "the group descriptors take too much room");
    require(ext2fs_has_feature_meta_bg(&super) == 0 || super.s_first_meta_bg <= descriptorBlocks,
            "the place of group descriptors makes no sense");
    require(groups * super.s_inodes_per_group == super.s_inodes_count,
            "the number of inodes makes no sense");
}

void checkInodes(const ext2_super_block& super) {
    require(std::has_single_bit(super.s_inode_size) && super.s_inode_size >= smallestInode &&
                super.s_inode_size <= blockSize,
            "the size of inodes makes no sense");
    const std::uint64_t perBlock = blockSize / super.s_inode_size;
    require(super.s_inodes_per_group >= perBlock && super.s_inodes_per_group % 8 == 0 &&
                super.s_inodes_per_group <= bitsPerBlock &&
                super.s_inodes_per_group / perBlock < super.s_blocks_per_group,
            "the number of inodes in a group makes no sense");
    const unsigned roomForMore = super.s_inode_size - EXT2_GOOD_OLD_INODE_SIZE;
    require(super.s_min_extra_isize <= roomForMore && super.s_want_extra_isize <= roomForMore,
            "the room in inodes makes no sense");
    require(super.s_first_ino >= EXT2_GOOD_OLD_FIRST_INO &&
                super.s_first_ino < super.s_inodes_count &&
                super.s_first_ino <= super.s_inodes_per_group,
            "the first inode makes no sense");
    require(super.s_free_inodes_count <= super.s_inodes_count,
            "the volume has more free inodes than inodes");
    require(super.s_journal_inum <= super.s_inodes_count &&
                super.s_last_orphan <= super.s_inodes_count,
            "the superblock names inodes that do not exist");
}

} // namespace

void verifySuperblock(BlockDevice& device) {
    verifyLength(device);
    ext2_super_block super = readSuperblock(device);
    require(checksumIsRight(super), "the superblock's checksum is wrong");
    checkFeatures(super);
    checkInodes(super);
    checkBlocks(super, device.blockCount());
    checkGroups(super);
}

void verifyLength(BlockDevice& device) {
    ext2_super_block super = readSuperblock(device);
    require(super.s_magic == EXT2_SUPER_MAGIC, "no volume in it");
    require(!checksumIsRight(super) || ext2fs_blocks_count(&super) <= device.blockCount(),
            "the file is shorter than its volume");
}
