#include "VolumeChecksums.h"

#include <ext2fs/ext2fs.h>
#include <ext2fs/ext3_extents.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace {

constexpr std::uint64_t blockSize = 4096;
constexpr std::uint64_t mostGroups = 64;
constexpr std::uint64_t mostInodes = 4096;

std::uint32_t crc(std::uint32_t seed, const void* bytes, std::size_t size) {
    return ext2fs_crc32c_le(seed, static_cast<const unsigned char*>(bytes), size);
}

template <typename Number> std::uint32_t crcOf(std::uint32_t seed, Number number) {
    return crc(seed, &number, sizeof number);
}

class Fixer {
public:
    explicit Fixer(std::span<std::byte> volume)
        : volume_(volume),
          super_(*reinterpret_cast<ext2_super_block*>(volume.data() + SUPERBLOCK_OFFSET)) {}

    void run() {
        fixSuperblock();
        if (ext2fs_has_feature_metadata_csum(&super_) == 0 || super_.s_inodes_per_group == 0 ||
            super_.s_blocks_per_group == 0)
            return;
        seed_ = ext2fs_has_feature_csum_seed(&super_) != 0
                    ? super_.s_checksum_seed
                    : crc(~0U, super_.s_uuid, sizeof super_.s_uuid);
        const std::uint64_t groups = std::min<std::uint64_t>(
            mostGroups, (ext2fs_blocks_count(&super_) + super_.s_blocks_per_group - 1) /
                            super_.s_blocks_per_group);
        for (std::uint64_t group = 0; group < groups; ++group) fixGroup(group);
    }

private:
    void fixSuperblock() {
        if (ext2fs_has_feature_metadata_csum(&super_) == 0) return;
        super_.s_checksum_type = EXT2_CRC32C_CHKSUM;
        super_.s_checksum = crc(~0U, &super_, offsetof(ext2_super_block, s_checksum));
    }

    std::byte* block(std::uint64_t number) {
        return number < volume_.size() / blockSize ? volume_.data() + number * blockSize : nullptr;
    }

    void fixGroup(std::uint64_t group) {
        const std::size_t size =
            ext2fs_has_feature_64bit(&super_) != 0 ? super_.s_desc_size : EXT2_MIN_DESC_SIZE;
        if (size < EXT2_MIN_DESC_SIZE || size > 1024) return;
        const std::uint64_t at = blockSize + group * size;
        if (at + size > volume_.size()) return;
        auto* bytes = volume_.data() + at;
        ext4_group_desc descriptor{};
        std::memcpy(&descriptor, bytes, std::min(size, sizeof descriptor));
        fixInodes(group, descriptor);
        fixBitmaps(descriptor);
        descriptor.bg_checksum = 0;
        std::memcpy(bytes, &descriptor, std::min(size, sizeof descriptor));
        descriptor.bg_checksum =
            static_cast<__u16>(crc(crcOf(seed_, static_cast<std::uint32_t>(group)), bytes, size));
        std::memcpy(bytes, &descriptor, std::min(size, sizeof descriptor));
    }

    void fixBitmaps(ext4_group_desc& descriptor) {
        const std::size_t clusters = std::min<std::size_t>(super_.s_clusters_per_group / 8, 4096);
        const std::size_t inodes = std::min<std::size_t>(super_.s_inodes_per_group / 8, 4096);
        if (const auto* bits = block(descriptor.bg_block_bitmap)) {
            const std::uint32_t sum = crc(seed_, bits, clusters);
            descriptor.bg_block_bitmap_csum_lo = static_cast<__u16>(sum);
            descriptor.bg_block_bitmap_csum_hi = static_cast<__u16>(sum >> 16);
        }
        if (const auto* bits = block(descriptor.bg_inode_bitmap)) {
            const std::uint32_t sum = crc(seed_, bits, inodes);
            descriptor.bg_inode_bitmap_csum_lo = static_cast<__u16>(sum);
            descriptor.bg_inode_bitmap_csum_hi = static_cast<__u16>(sum >> 16);
        }
    }

    void fixInodes(std::uint64_t group, const ext4_group_desc& descriptor) {
        const std::size_t size = super_.s_inode_size;
        if (size < sizeof(ext2_inode_large) || size > blockSize || descriptor.bg_inode_table == 0)
            return;
        const std::uint64_t count = std::min<std::uint64_t>(mostInodes, super_.s_inodes_per_group);
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t at = descriptor.bg_inode_table * blockSize + i * size;
            if (at + size > volume_.size()) return;
            fixInode(volume_.data() + at, size,
                     static_cast<std::uint32_t>(group * super_.s_inodes_per_group + i + 1));
        }
    }

    void fixInode(std::byte* bytes, std::size_t size, std::uint32_t number) {
        if (std::all_of(bytes, bytes + size, [](std::byte b) { return b == std::byte{0}; })) return;
        ext2_inode_large inode{};
        std::memcpy(&inode, bytes, sizeof inode);
        const std::uint32_t seed = crcOf(crcOf(seed_, number), inode.i_generation);
        if ((inode.i_flags & EXT4_EXTENTS_FL) != 0)
            fixExtents(reinterpret_cast<std::byte*>(inode.i_block), sizeof inode.i_block, seed,
                       LINUX_S_ISDIR(inode.i_mode), 2);
        fixAttributes(inode.i_file_acl);
        // The upper half has a place only in an inode that says so.
        const bool wide = inode.i_extra_isize >= sizeof inode.i_extra_isize + sizeof(__u16);
        inode.osd2.linux2.l_i_checksum_lo = 0;
        if (wide) inode.i_checksum_hi = 0;
        std::memcpy(bytes, &inode, sizeof inode);
        const std::uint32_t sum = crc(seed, bytes, size);
        inode.osd2.linux2.l_i_checksum_lo = static_cast<__u16>(sum);
        if (wide) inode.i_checksum_hi = static_cast<__u16>(sum >> 16);
        std::memcpy(bytes, &inode, sizeof inode);
    }

    void fixExtents(const std::byte* node, std::size_t size, std::uint32_t seed, bool directory,
                    int levels) {
        ext3_extent_header header{};
        std::memcpy(&header, node, sizeof header);
        for (std::size_t i = 0; i < header.eh_entries; ++i) {
            const std::size_t at = sizeof header + i * sizeof(ext3_extent);
            if (at + sizeof(ext3_extent) > size) return;
            if (header.eh_depth == 0) {
                ext3_extent extent{};
                std::memcpy(&extent, node + at, sizeof extent);
                for (std::uint64_t j = 0;
                     directory && j < std::min<std::uint64_t>(extent.ee_len, 64); ++j)
                    fixDirectory(block(extent.ee_start + j), seed);
            } else if (levels > 0) {
                ext3_extent_idx index{};
                std::memcpy(&index, node + at, sizeof index);
                fixExtentBlock(block(index.ei_leaf), seed, directory, levels - 1);
            }
        }
    }

    void fixExtentBlock(std::byte* node, std::uint32_t seed, bool directory, int levels) {
        if (node == nullptr) return;
        fixExtents(node, blockSize, seed, directory, levels);
        ext3_extent_header header{};
        std::memcpy(&header, node, sizeof header);
        const std::size_t at = sizeof header + header.eh_max * sizeof(ext3_extent);
        if (at + sizeof(std::uint32_t) > blockSize) return;
        const std::uint32_t sum = crc(seed, node, at);
        std::memcpy(node + at, &sum, sizeof sum);
    }

    static void fixDirectory(std::byte* bytes, std::uint32_t seed) {
        if (bytes == nullptr) return;
        constexpr std::size_t at = blockSize - sizeof(ext2_dir_entry_tail);
        ext2_dir_entry_tail tail{};
        std::memcpy(&tail, bytes + at, sizeof tail);
        if (tail.det_rec_len != sizeof tail) return;
        tail.det_checksum = crc(seed, bytes, at);
        std::memcpy(bytes + at, &tail, sizeof tail);
    }

    void fixAttributes(std::uint64_t number) {
        auto* bytes = block(number);
        if (number == 0 || bytes == nullptr) return;
        ext2_ext_attr_header header{};
        std::memcpy(&header, bytes, sizeof header);
        if (header.h_magic != EXT2_EXT_ATTR_MAGIC) return;
        header.h_checksum = 0;
        std::memcpy(bytes, &header, sizeof header);
        header.h_checksum = crc(crcOf(seed_, number), bytes, blockSize);
        std::memcpy(bytes, &header, sizeof header);
    }

    std::span<std::byte> volume_;
    ext2_super_block& super_;
    std::uint32_t seed_ = 0;
};

} // namespace

void fixVolumeChecksums(std::span<std::byte> volume) {
    if (volume.size() < 2 * blockSize) return;
    Fixer(volume).run();
}
