#pragma once

#include "linux/hdiutil/BlockDevice.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

/// A disk in a sparse file, unencrypted, that can be very long. It holds a fresh ext4 by mke2fs, of
/// the kind that grows. What it says of the disk beneath is the test's choice.
class FileDisk : public BlockDevice {
public:
    /// `options` go to mke2fs besides those that make it grow.
    explicit FileDisk(unsigned megabytes, const std::string& options = "");
    ~FileDisk() override;

    std::uint64_t blockCount() const noexcept override { return blocks_; }
    std::uint64_t freeBlocks() override { return free; }
    void read(std::uint64_t firstBlock, std::span<std::byte> into) override;
    void write(std::uint64_t firstBlock, std::span<const std::byte> from) override;
    void reserve(std::uint64_t firstBlock, std::uint64_t count) override;
    void sync() override { ++syncs; }
    std::uint64_t longestCount() override { return longest; }
    void lengthen(std::uint64_t count) override;
    bool discard(std::uint64_t firstBlock, std::uint64_t count) override;
    std::uint64_t backedBlocks() override { return backed; }

    /// What e2fsck says: "" when it finds nothing wrong.
    std::string check() const;

    std::uint64_t free = 1 << 24;
    std::uint64_t backed = 0;
    std::uint64_t longest = 1 << 24;
    std::uint64_t roomFor = ~std::uint64_t{0}; ///< blocks that `reserve` may still be asked for
    std::size_t syncs = 0;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> discarded; ///< first and count

private:
    std::filesystem::path directory_;
    int fd_ = -1;
    std::uint64_t blocks_;
};
