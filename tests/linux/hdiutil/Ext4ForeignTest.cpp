#include "Ext4VolumeFixture.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace {

TEST(Ext4VolumeDamageTest, RefusesWhatMakesNoSense) {
    PlainVolume disk;
    const std::vector<std::byte> zeros(64 * EncryptedImage::blockSize);
    disk.image().write(0, zeros);
    EXPECT_THROW(Ext4Volume::open(disk.image(), false), VolumeCorrupt);
    EXPECT_THROW(Ext4Volume::needsCheck(disk.image()), VolumeCorrupt);
}

TEST(Ext4VolumeForeignTest, AFullVolumeOfBlockListsStaysWhole) {
    PlainVolume disk(64, "-O ^extents,^64bit,^flex_bg");
    const ext2_ino_t file =
        numberOf(disk.volume().create(Ext4Volume::root, "file", {S_IFREG | 0644, 0, {}}, me));
    const auto chunk = pattern(300'000, 2);
    int error = 0;
    // Blocks of the lists themselves run out in the middle of a run, now and then.
    for (std::uint64_t at = 0; error == 0; at += 5 * chunk.size())
        error = errnoFrom([&] { disk.volume().write(file, at, chunk); });
    EXPECT_EQ(error, ENOSPC);
    disk.close();
    EXPECT_EQ(disk.check(), "");
}

TEST(Ext4VolumeForeignTest, UsesFileSystemsWithoutExtentsChecksumsOrHashTrees) {
    PlainVolume disk(64, "-O ^extents,^metadata_csum,^dir_index,^64bit,^flex_bg");
    const ext2_ino_t root = Ext4Volume::root;
    const auto contents = pattern(7'000'000, 8);
    const ext2_ino_t file =
        numberOf(disk.volume().create(root, "file", {S_IFREG | 0644, 0, {}}, me));
    ASSERT_EQ(disk.volume().write(file, 100, contents), contents.size());
    for (int i = 0; i < 2000; ++i) disk.volume().link(file, root, "n" + std::to_string(i));
    Ext4Volume::Changes changes;
    changes.size = 5'000'000;
    disk.volume().setAttributes(file, changes);
    disk.close();
    EXPECT_EQ(disk.check(), "");
    std::vector<std::byte> back(5'000'000);
    EXPECT_EQ(disk.volume().read(numberOf(*disk.volume().lookup(root, "n7")), 0, back),
              back.size());
    EXPECT_TRUE(std::equal(back.begin() + 100, back.end(), contents.begin()));
    disk.close();
}

TEST(Ext4VolumeForeignTest, AVolumeWithoutAJournalIsCheckedAfterACrash) {
    PlainVolume disk;
    const auto plain = disk.decrypt();
    const std::string edit = "/usr/sbin/tune2fs -O ^has_journal ";
    ASSERT_EQ(std::system((edit + plain.string() + " >/dev/null").c_str()), 0);
    disk.encrypt(plain);
    const ext2_ino_t root = Ext4Volume::root;
    const ext2_ino_t file =
        numberOf(disk.volume().create(root, "file", {S_IFREG | 0644, 0, {}}, me));
    disk.volume().write(file, 0, pattern(50'000, 3));
    disk.volume().syncFile(file);
    disk.crash();
    EXPECT_TRUE(Ext4Volume::needsCheck(disk.image()));
    EXPECT_EQ(disk.check(), "");
    disk.volume().unlink(root, "file");
    disk.close();
    EXPECT_FALSE(Ext4Volume::needsCheck(disk.image()));
    EXPECT_EQ(disk.check(), "");
}

TEST(Ext4VolumeForeignTest, AJournalOnAnotherDeviceIsRefused) {
    PlainVolume disk;
    const auto plain = disk.decrypt();
    const std::string edit = "/usr/sbin/debugfs -w -R 'ssv journal_inum 0' ";
    ASSERT_EQ(std::system((edit + plain.string() + " 2>/dev/null").c_str()), 0);
    disk.encrypt(plain);
    EXPECT_THROW(Ext4Volume::needsCheck(disk.image()), VolumeNotSupported);
    EXPECT_THROW(Ext4Volume::open(disk.image(), false), VolumeNotSupported);
}

TEST(Ext4VolumeForeignTest, AJournalThatHoldsTransactionsIsNotWrittenOver) {
    PlainVolume disk;
    disk.volume().create(Ext4Volume::root, "file", {S_IFREG | 0644, 0, {}}, me);
    disk.volume().sync();
    disk.crash();
    EXPECT_THROW(Ext4Volume::open(disk.image(), false), VolumeCorrupt);
}

TEST(Ext4VolumeForeignTest, JournalsOfAllSizesServe) {
    for (const char* size : {"-J size=4", "-J size=7", "-J size=40"}) {
        PlainVolume disk(128, size);
        const ext2_ino_t root = Ext4Volume::root;
        for (int i = 0; i < 3000; ++i) {
            const std::string name = "d" + std::to_string(i);
            disk.volume().create(root, name, {S_IFDIR | 0755, 0, {}}, me);
            if (i % 3 == 0) disk.volume().removeDirectory(root, name);
        }
        disk.close();
        EXPECT_EQ(disk.check(), "") << size;
    }
}

TEST(Ext4VolumeForeignTest, GivesUpAHashTreeWhenItAddsAName) {
    PlainVolume disk;
    const ext2_ino_t root = Ext4Volume::root;
    const ext2_ino_t directory =
        numberOf(disk.volume().create(root, "d", {S_IFDIR | 0755, 0, {}}, me));
    const ext2_ino_t file =
        numberOf(disk.volume().create(root, "file", {S_IFREG | 0644, 0, {}}, me));
    for (int i = 0; i < 30'000; ++i)
        disk.volume().link(file, directory, "a longer name to fill blocks " + std::to_string(i));
    disk.close();
    // e2fsck -D builds the trees that a kernel would.
    const auto plain = disk.decrypt();
    ASSERT_EQ(
        std::system(("/usr/sbin/e2fsck -fyD " + plain.string() + " >/dev/null 2>&1").c_str()) &
            0xfe00,
        0);
    disk.encrypt(plain);
    const ext2_ino_t again = numberOf(*disk.volume().lookup(root, "d"));
    EXPECT_TRUE(disk.volume().lookup(again, "a longer name to fill blocks 29999"));
    disk.volume().unlink(again, "a longer name to fill blocks 77");
    disk.close();
    EXPECT_EQ(disk.check(), ""); // still a tree
    const ext2_ino_t once = numberOf(*disk.volume().lookup(root, "d"));
    for (int i = 0; i < 500; ++i)
        disk.volume().create(once, "added " + std::to_string(i), {S_IFREG | 0644, 0, {}}, me);
    std::size_t count = 0;
    disk.volume().readDirectory(once, 0, [&](const Directory::Entry&) { return ++count > 0; });
    EXPECT_EQ(count, 2U + 29'999 + 500);
    disk.close();
    EXPECT_EQ(disk.check(), "");
}

} // namespace
