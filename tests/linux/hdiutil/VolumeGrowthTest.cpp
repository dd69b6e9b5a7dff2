// Volumes that grow, give room back, and say how much there is.

#include "Ext4VolumeFixture.h"
#include "FileDisk.h"

#include <linux/falloc.h>

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace {

constexpr ext2_ino_t root = Ext4Volume::root;
constexpr std::uint64_t mebibyte = 1 << 20;
constexpr std::uint64_t groupBlocks = 32768;

ext2_ino_t makeFile(Ext4Volume& volume, std::string_view name) {
    return numberOf(volume.create(root, name, {S_IFREG | 0644, 0, {}}, me));
}

std::vector<std::byte> contents(Ext4Volume& volume, std::string_view name) {
    const auto found = volume.lookup(root, name);
    std::vector<std::byte> bytes(static_cast<std::size_t>(found->st_size));
    volume.read(numberOf(*found), 0, bytes);
    volume.forget(numberOf(*found), 1);
    return bytes;
}

TEST(VolumeGrowthTest, GrowsOverManyGroupsAndGoesOnAfterwards) {
    FileDisk disk(24, "-N 2048");
    auto volume = Ext4Volume::open(disk, false);
    const auto before = pattern(3 * mebibyte, 1);
    volume->write(makeFile(*volume, "before"), 0, before);
    const ext2_ino_t reserved = makeFile(*volume, "reserved");
    // Over the end of the first 64 groups, whose descriptors are one block.
    for (std::uint64_t at = 0; at < 9; ++at) volume->allocate(reserved, 0, at << 30, 1 << 30);
    EXPECT_GT(disk.blockCount(), 70 * groupBlocks);
    EXPECT_LT(disk.blockCount(), 88 * groupBlocks);
    const auto after = pattern(3 * mebibyte, 2);
    volume->write(makeFile(*volume, "after"), 0, after);
    volume->close();
    EXPECT_EQ(disk.check(), "");

    volume = Ext4Volume::open(disk, false);
    EXPECT_EQ(contents(*volume, "before"), before);
    EXPECT_EQ(contents(*volume, "after"), after);
    const std::uint64_t length = disk.blockCount();
    volume->allocate(makeFile(*volume, "more"), 0, 0, 2ULL << 30);
    EXPECT_GT(disk.blockCount(), length);
    volume->unlink(root, "reserved");
    volume->forget(reserved, 1);
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, OneReservationMayBeLargerThanTheVolume) {
    FileDisk disk(24, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const ext2_ino_t file = makeFile(*volume, "file");
    volume->allocate(file, 0, 0, 20ULL << 30);
    EXPECT_EQ(volume->attributes(file).st_size, 20LL << 30);
    // What is there already needs no room.
    const std::uint64_t length = disk.blockCount();
    volume->allocate(file, 0, 0, 20ULL << 30);
    EXPECT_EQ(disk.blockCount(), length);
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, GrowsWhenInodesRunShort) {
    FileDisk disk(128, "-N 1024");
    auto volume = Ext4Volume::open(disk, false);
    for (int i = 0; i < 5000; ++i) makeFile(*volume, std::to_string(i));
    EXPECT_GT(volume->statistics().f_files - volume->statistics().f_ffree, 5000U);
    volume->close();
    EXPECT_EQ(disk.check(), "");
    EXPECT_GT(disk.blockCount(), 4 * groupBlocks);
}

TEST(VolumeGrowthTest, StaysCloseToWhatItHolds) {
    FileDisk disk(24, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const ext2_ino_t file = makeFile(*volume, "file");
    const auto piece = pattern(mebibyte, 3);
    for (std::uint64_t at = 0; at < 300; ++at) volume->write(file, at * mebibyte, piece);
    EXPECT_LT(disk.blockCount() * BlockDevice::blockSize, 380 * mebibyte);
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, ADeviceThatEndsEndsTheVolume) {
    FileDisk disk(24, "-N 2048");
    disk.longest = 40 * mebibyte / BlockDevice::blockSize;
    const auto volume = Ext4Volume::open(disk, false);
    EXPECT_LT(volume->statistics().f_bavail, disk.longest);
    const ext2_ino_t file = makeFile(*volume, "file");
    const auto piece = pattern(mebibyte, 3);
    std::uint64_t written = 0;
    int error = 0;
    while (error == 0) error = errnoFrom([&] { written += volume->write(file, written, piece); });
    EXPECT_EQ(error, ENOSPC);
    EXPECT_GT(written, 32 * mebibyte);
    EXPECT_EQ(disk.blockCount(), disk.longest);
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, OtherKindsOfVolumesStayAsTheyAre) {
    FileDisk disk(32, "-O ^meta_bg,resize_inode");
    const auto volume = Ext4Volume::open(disk, false);
    const std::uint64_t length = disk.blockCount();
    const ext2_ino_t file = makeFile(*volume, "file");
    EXPECT_EQ(errnoFrom([&] { volume->allocate(file, 0, 0, 64 * mebibyte); }), ENOSPC);
    EXPECT_EQ(disk.blockCount(), length);
    const struct statvfs room = volume->statistics();
    EXPECT_LE(room.f_blocks, length);
    EXPECT_EQ(room.f_bavail, room.f_bfree);
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, AFullDiskStopsTheGrowthAndNothingElse) {
    FileDisk disk(24, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const ext2_ino_t file = makeFile(*volume, "file");
    volume->sync();
    disk.free = 0;
    const std::uint64_t length = disk.blockCount();
    EXPECT_EQ(errnoFrom([&] { volume->allocate(file, 0, 0, 64 * mebibyte); }), ENOSPC);
    EXPECT_EQ(disk.blockCount(), length);
    volume->write(file, 0, pattern(mebibyte, 1)); // into the room there is
    // The disk has less than it said: its last blocks go while the volume grows.
    disk.free = 1 << 24;
    disk.roomFor = 0;
    EXPECT_NE(errnoFrom([&] { volume->allocate(file, 0, 0, 300 * mebibyte); }), 0);
    disk.roomFor = ~std::uint64_t{0};
    volume->sync();
    EXPECT_EQ(disk.check(), "");
    EXPECT_GT(disk.blockCount(), length); // longer than its volume, until that grows
    volume->allocate(file, 0, 0, 300 * mebibyte);
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, DiscardsWhatIsFreeOnceThatIsCommitted) {
    FileDisk disk(64, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const auto kept = pattern(5 * mebibyte, 4);
    volume->write(makeFile(*volume, "kept"), 0, kept);
    const ext2_ino_t gone = makeFile(*volume, "gone");
    volume->write(gone, 0, pattern(5 * mebibyte, 5));
    const auto alsoKept = pattern(5 * mebibyte, 6);
    volume->write(makeFile(*volume, "also kept"), 0, alsoKept);
    volume->sync();
    volume->writeBehind();
    EXPECT_TRUE(disk.discarded.empty());
    volume->unlink(root, "gone");
    volume->forget(gone, 1);
    EXPECT_TRUE(disk.discarded.empty());
    const std::size_t syncs = disk.syncs;
    volume->writeBehind();
    EXPECT_GT(disk.syncs, syncs);
    const std::uint64_t given =
        std::accumulate(disk.discarded.begin(), disk.discarded.end(), std::uint64_t{0},
                        [](std::uint64_t sum, const auto& range) { return sum + range.second; });
    EXPECT_GE(given, 5 * mebibyte / BlockDevice::blockSize);
    EXPECT_EQ(contents(*volume, "kept"), kept);
    EXPECT_EQ(contents(*volume, "also kept"), alsoKept);
    disk.discarded.clear();
    volume->writeBehind(); // nothing new
    EXPECT_TRUE(disk.discarded.empty());
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, ClosingGivesBackWhatIsLeft) {
    FileDisk disk(64, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const ext2_ino_t gone = makeFile(*volume, "gone");
    volume->write(gone, 0, pattern(5 * mebibyte, 5));
    volume->unlink(root, "gone");
    volume->forget(gone, 1);
    volume->close();
    EXPECT_FALSE(disk.discarded.empty());
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, AFullDiskGetsFreedRoomBackAtOnce) {
    FileDisk disk(64, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const ext2_ino_t gone = makeFile(*volume, "gone");
    volume->write(gone, 0, pattern(20 * mebibyte, 5));
    disk.free = 0;
    volume->unlink(root, "gone");
    volume->forget(gone, 1);
    makeFile(*volume, "next");
    EXPECT_FALSE(disk.discarded.empty());
    volume->close();
    EXPECT_EQ(disk.check(), "");
}

TEST(VolumeGrowthTest, TellsWhatTheDiskCanTake) {
    FileDisk disk(64, "-N 2048");
    const auto volume = Ext4Volume::open(disk, false);
    const struct statvfs empty = volume->statistics();
    EXPECT_LE(empty.f_bavail, disk.free);
    EXPECT_GT(empty.f_bavail, disk.free / 10 * 9);
    EXPECT_GT(empty.f_favail, empty.f_bavail / 20); // one inode for 16 blocks
    const ext2_ino_t file = makeFile(*volume, "file");
    volume->write(file, 0, pattern(20 * mebibyte, 5));
    const struct statvfs after = volume->statistics();
    EXPECT_EQ(after.f_blocks - after.f_bfree - (empty.f_blocks - empty.f_bfree),
              20 * mebibyte / BlockDevice::blockSize);
    EXPECT_EQ(after.f_files - after.f_ffree, empty.f_files - empty.f_ffree + 1);
    disk.free = 0;
    EXPECT_EQ(volume->statistics().f_bavail, 0U);
    disk.backed = disk.blockCount(); // as in a copy without holes
    const std::uint64_t backed = volume->statistics().f_bavail;
    EXPECT_GT(backed, 5000U);
    EXPECT_LE(backed, disk.blockCount() - 20 * mebibyte / BlockDevice::blockSize);
    volume->close();
}

} // namespace
