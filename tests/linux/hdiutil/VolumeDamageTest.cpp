// Structure that turns out to be damaged while the volume is in use, and before.

#include "DamagedVolume.h"
#include "Ext4VolumeFixture.h"

#include <cerrno>
#include <string>
#include <vector>

namespace {

class VolumeDamageTest : public Ext4VolumeTest {
protected:
    void SetUp() override {
        victim = makeFile(root, "victim");
        neighbour = makeFile(root, "neighbour");
        directory = makeDirectory(root, "directory");
        inside = makeFile(directory, "inside");
        for (const ext2_ino_t file : {victim, neighbour, inside}) {
            for (std::uint64_t piece = 0; piece < 20; ++piece)
                volume().write(file, piece * 8192, content);
            volume().setAttribute(file, "user.long", pattern(2000, 3), 0);
        }
        disk.close();
    }

    int read(ext2_ino_t inode) {
        return errnoFrom([&] {
            std::vector<std::byte> back(4096);
            volume().read(inode, 0, back);
            EXPECT_EQ(back, content);
        });
    }
    int lookUp(ext2_ino_t parent, const char* name) {
        return errnoFrom([&] { EXPECT_TRUE(volume().lookup(parent, name)); });
    }
    int readAttribute(ext2_ino_t inode) {
        return errnoFrom(
            [&] { EXPECT_EQ(volume().attribute(inode, "user.long"), pattern(2000, 3)); });
    }
    /// As the server does with every failure. The next attach will have the volume checked.
    void expectNoted(int error) {
        volume().noteFailure(error);
        disk.close();
        EXPECT_TRUE(Ext4Volume::needsCheck(disk.image()));
    }
    void expectNeighbour() {
        EXPECT_EQ(lookUp(root, "neighbour"), 0);
        EXPECT_EQ(read(neighbour), 0);
        EXPECT_EQ(readAttribute(neighbour), 0);
        EXPECT_GE(list(root).size(), 5U);
    }

    const std::vector<std::byte> content = pattern(4096, 2);
    ext2_ino_t victim = 0;
    ext2_ino_t neighbour = 0;
    ext2_ino_t directory = 0;
    ext2_ino_t inside = 0;
};

TEST_F(VolumeDamageTest, ADamagedInodeFailsAlone) {
    const DamagedVolume damage(disk.image());
    const auto place = damage.inodePlace(victim);
    damage.flip(place.block, place.offset + 4);
    EXPECT_EQ(lookUp(root, "victim"), EUCLEAN);
    EXPECT_EQ(read(victim), EUCLEAN);
    expectNeighbour();
    expectNoted(EUCLEAN);
}

TEST_F(VolumeDamageTest, ADamagedDirectoryFailsAlone) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.firstBlock(directory), 30);
    EXPECT_EQ(lookUp(directory, "inside"), EUCLEAN);
    EXPECT_EQ(errnoFrom([&] { list(directory); }), EUCLEAN);
    expectNeighbour();
    expectNoted(EUCLEAN);
}

TEST_F(VolumeDamageTest, ADamagedBlockOfExtentsFailsAlone) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.extentBlock(victim), 20);
    EXPECT_EQ(lookUp(root, "victim"), 0);
    EXPECT_EQ(read(victim), EUCLEAN);
    EXPECT_EQ(errnoFrom([&] { volume().write(victim, 0, content); }), EUCLEAN);
    expectNeighbour();
    expectNoted(EUCLEAN);
}

TEST_F(VolumeDamageTest, ADamagedBlockOfAttributesFailsAlone) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.attributeBlock(victim), 3000);
    EXPECT_EQ(readAttribute(victim), EUCLEAN);
    EXPECT_EQ(read(victim), 0);
    expectNeighbour();
    expectNoted(EUCLEAN);
}

TEST_F(VolumeDamageTest, ADamagedPlaceForLostFilesHoldsNobodyUp) {
    const DamagedVolume damage(disk.image());
    const auto place = damage.inodePlace(EXT2_GOOD_OLD_FIRST_INO);
    damage.flip(place.block, place.offset + 4);
    expectNeighbour();
}

TEST_F(VolumeDamageTest, WhatEverythingDependsOnIsLookedAtBeforehand) {
    const DamagedVolume damage(disk.image());
    const auto rootPlace = damage.inodePlace(root);
    const auto journal = damage.inodePlace(EXT2_JOURNAL_INO);
    const auto unused = damage.inodePlace(EXT2_BOOT_LOADER_INO);
    const std::vector<DamagedVolume::Place> places = {
        {0, 1024 + 0x10},
        {0, 1024 + 0x60},
        {damage.descriptors(), 0},
        {damage.descriptors(), 14},
        {damage.blockBitmap(), 100},
        {damage.blockBitmap() + 1, 0},
        {rootPlace.block, rootPlace.offset + 100},
        {journal.block, journal.offset + 50},
        {unused.block, unused.offset + 8},
        {damage.firstBlock(root), 40},
        {damage.firstBlock(EXT2_JOURNAL_INO), 1000},
    };
    for (const auto& place : places) {
        damage.flip(place.block, place.offset);
        for (const bool readOnly : {true, false})
            EXPECT_THROW(Ext4Volume::open(disk.image(), readOnly), VolumeCorrupt)
                << "block " << place.block << ", byte " << place.offset;
        damage.flip(place.block, place.offset);
        EXPECT_NO_THROW(Ext4Volume::open(disk.image(), false));
    }
}

TEST(VolumeVerifierTest, AcceptsVolumesOfAllShapes) {
    for (const char* options :
         {"-O ^resize_inode,meta_bg", "-O ^resize_inode,meta_bg -g 1024", "-O ^metadata_csum",
          "-O ^metadata_csum,uninit_bg", "-O ^flex_bg", "-O ^flex_bg,^64bit,^metadata_csum -g 2048",
          "-I 512 -N 256", "-g 4096 -N 4096", "-O metadata_csum_seed", "-O ^has_journal",
          "-O ^sparse_super,^resize_inode -g 4096", "-E lazy_itable_init=0"}) {
        PlainVolume disk(64, options);
        for (int i = 0; i < 200; ++i)
            disk.volume().create(Ext4Volume::root, std::to_string(i), {S_IFDIR | 0755, 0, {}}, me);
        disk.close();
        EXPECT_NO_THROW(Ext4Volume::open(disk.image(), false)) << options;
        EXPECT_EQ(disk.check(), "") << options;
    }
}

} // namespace
