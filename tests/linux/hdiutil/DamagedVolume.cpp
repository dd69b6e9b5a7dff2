#include "DamagedVolume.h"

#include "linux/hdiutil/BlockCache.h"
#include "linux/hdiutil/Ext2Error.h"
#include "linux/hdiutil/Ext2Io.h"

#include <ext2fs/ext3_extents.h>

#include <cstring>

std::vector<std::byte> readAll(BlockDevice& device) {
    std::vector<std::byte> content(device.blockCount() * BlockDevice::blockSize);
    device.read(0, content);
    return content;
}

DamagedVolume::DamagedVolume(BlockDevice& device)
    : device_(device), cache_(std::make_unique<BlockCache>(device)) {
    check(Ext2Io::open(*cache_, EXT2_FLAG_64BITS, &fs_));
}

DamagedVolume::~DamagedVolume() {
    ext2fs_free(fs_);
}

void DamagedVolume::flip(std::uint64_t block, std::size_t byte) const {
    std::vector<std::byte> content(BlockDevice::blockSize);
    device_.read(block, content);
    content.at(byte) ^= std::byte{4};
    device_.write(block, content);
}

std::uint64_t DamagedVolume::blockBitmap() const {
    return ext2fs_block_bitmap_loc(fs_, 0);
}

ext2_inode DamagedVolume::inode(ext2_ino_t number) const {
    ext2_inode result{};
    check(ext2fs_read_inode(fs_, number, &result));
    return result;
}

DamagedVolume::Place DamagedVolume::inodePlace(ext2_ino_t inode) const {
    const ext2_ino_t index = inode - 1;
    const ext2_ino_t perGroup = fs_->super->s_inodes_per_group;
    const std::uint64_t byte = std::uint64_t{index % perGroup} * EXT2_INODE_SIZE(fs_->super);
    return {ext2fs_inode_table_loc(fs_, index / perGroup) + byte / BlockDevice::blockSize,
            byte % BlockDevice::blockSize};
}

std::uint64_t DamagedVolume::firstBlock(ext2_ino_t number) const {
    ext2_inode found = inode(number);
    blk64_t block = 0;
    check(ext2fs_bmap2(fs_, number, &found, nullptr, 0, 0, nullptr, &block));
    return block;
}

std::uint64_t DamagedVolume::extentBlock(ext2_ino_t number) const {
    const ext2_inode found = inode(number);
    ext3_extent_header header{};
    std::memcpy(&header, found.i_block, sizeof header);
    if (header.eh_depth == 0) failWith(ENOENT);
    ext3_extent_idx index{};
    std::memcpy(&index, reinterpret_cast<const char*>(found.i_block) + sizeof header, sizeof index);
    return index.ei_leaf;
}

std::uint64_t DamagedVolume::attributeBlock(ext2_ino_t number) const {
    const ext2_inode found = inode(number);
    return ext2fs_file_acl_block(fs_, &found);
}
