#pragma once

#include "linux/hdiutil/BlockDevice.h"

#include <ext2fs/ext2fs.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// Everything on a device.
std::vector<std::byte> readAll(BlockDevice& device);

/// Finds where the structure of a volume lies, and damages it behind its back.
///
/// The places are those of the moment when the object was made; the volume must be closed then.
class DamagedVolume {
public:
    struct Place {
        std::uint64_t block = 0;
        std::size_t offset = 0;
    };

    explicit DamagedVolume(BlockDevice& device);
    ~DamagedVolume();
    DamagedVolume(const DamagedVolume&) = delete;
    DamagedVolume& operator=(const DamagedVolume&) = delete;

    /// Turns one bit over; done twice, all is as before.
    void flip(std::uint64_t block, std::size_t byte) const;
    /// The first of them.
    std::uint64_t descriptors() const { return 1; }
    std::uint64_t blockBitmap() const;
    Place inodePlace(ext2_ino_t inode) const;
    /// Where the file's or directory's first block lies.
    std::uint64_t firstBlock(ext2_ino_t inode) const;
    /// The file's block of extents, and of attributes.
    std::uint64_t extentBlock(ext2_ino_t inode) const;
    std::uint64_t attributeBlock(ext2_ino_t inode) const;

private:
    ext2_inode inode(ext2_ino_t number) const;

    BlockDevice& device_;
    std::unique_ptr<class BlockCache> cache_;
    ext2_filsys fs_ = nullptr;
};
