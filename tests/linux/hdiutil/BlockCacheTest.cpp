#include "PlainVolume.h"

#include "linux/hdiutil/BlockCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <vector>

namespace {

class BlockCacheTest : public testing::Test {
protected:
    using Block = std::vector<std::byte>;

    static Block blockOf(int value) {
        return Block(BlockCache::blockSize, static_cast<std::byte>(value));
    }
    int onDisk(std::uint64_t block) {
        Block found(BlockCache::blockSize);
        disk.image().read(block, found);
        return std::to_integer<int>(found.front());
    }
    int cached(std::uint64_t block) {
        Block found(BlockCache::blockSize);
        cache.read(block, found);
        return std::to_integer<int>(found.front());
    }

    PlainVolume disk;
    BlockCache cache{disk.image()};
};

TEST_F(BlockCacheTest, WritesNothingUntilItIsFlushed) {
    for (std::uint64_t block = 0; block < BlockCache::changedLimit; ++block)
        disk.image().write(block, blockOf(1));
    for (std::uint64_t block = 0; block < BlockCache::changedLimit; ++block) {
        EXPECT_EQ(cache.changedCount(), block);
        cache.write(block, blockOf(2));
    }
    cache.write(BlockCache::changedLimit, blockOf(2));
    EXPECT_EQ(cache.changedCount(), BlockCache::changedLimit + 1);
    EXPECT_EQ(onDisk(0), 1);
    EXPECT_EQ(cached(0), 2);
    cache.flush(false);
    EXPECT_EQ(cache.changedCount(), 0U);
    for (std::uint64_t block = 0; block <= BlockCache::changedLimit; ++block)
        ASSERT_EQ(onDisk(block), 2);
}

TEST_F(BlockCacheTest, KeepsChangedBlocksHoweverManyAreRead) {
    cache.write(7, blockOf(3));
    for (std::uint64_t block = 100; block < 100 + 3 * BlockCache::capacity / 2; ++block)
        cached(block);
    EXPECT_EQ(cached(7), 3);
    cache.flush(false);
    EXPECT_EQ(onDisk(7), 3);
}

TEST_F(BlockCacheTest, ForgetsWhatABlockWasInAnEarlierLife) {
    cache.write(7, blockOf(4));
    cache.forget(7, 1);
    disk.image().write(7, blockOf(5));
    cache.flush(false);
    EXPECT_EQ(onDisk(7), 5);
    EXPECT_EQ(cached(7), 5);
}

TEST_F(BlockCacheTest, TakesRoomOnTheDiskWithTheFirstChange) {
    const auto offset = static_cast<off_t>(1024 * 1024 + 9 * BlockCache::blockSize);
    ASSERT_EQ(::fallocate(disk.image().fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset,
                          BlockCache::blockSize),
              0);
    const auto room = [&] {
        struct stat status {};
        ::fstat(disk.image().fd(), &status);
        return status.st_blocks;
    };
    const auto before = room();
    cache.write(9, blockOf(6));
    EXPECT_GT(room(), before);
}

} // namespace
