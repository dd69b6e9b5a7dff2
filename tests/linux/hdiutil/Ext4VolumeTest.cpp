#include "Ext4VolumeFixture.h"

#include <gtest/gtest.h>

#include <linux/falloc.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

TEST_F(Ext4VolumeTest, EveryWriteMovesTheTimesThatWereSeenBefore) {
    const ext2_ino_t file = makeFile(root, "file");
    const auto times = [](const struct stat& seen) {
        EXPECT_EQ(seen.st_mtim.tv_nsec, seen.st_ctim.tv_nsec);
        return std::pair(seen.st_mtim.tv_sec, seen.st_mtim.tv_nsec);
    };
    const auto write = [&] { volume().write(file, 0, pattern(10, 1)); };
    const std::vector<std::function<struct stat()>> looks = {
        [&] { return volume().attributes(file); },
        [&] { return *volume().lookup(root, "file"); },
        [&] { return volume().reference(file); },
    };
    write();
    for (const auto& look : looks) {
        const auto before = times(look());
        write();
        write();
        EXPECT_GT(times(look()), before);
    }
    expectClean();
}

TEST_F(Ext4VolumeTest, KeepsWhatIsWrittenAcrossClosing) {
    const auto contents = pattern(3'000'001, 1);
    const ext2_ino_t file = makeFile(root, "a file");
    EXPECT_EQ(volume().write(file, 0, contents), contents.size());
    disk.close();

    const auto found = volume().lookup(root, "a file");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->st_size, 3'000'001);
    EXPECT_EQ(found->st_mode, static_cast<mode_t>(S_IFREG | 0644));
    EXPECT_EQ(found->st_uid, 1000U);
    std::vector<std::byte> back(contents.size() + 4096);
    EXPECT_EQ(volume().read(numberOf(*found), 0, back), contents.size());
    back.resize(contents.size());
    EXPECT_EQ(back, contents);
    expectClean();
}

TEST_F(Ext4VolumeTest, RandomWritesTruncatesAndHolesMatchAModel) {
    const ext2_ino_t file = makeFile(root, "model");
    std::vector<std::byte> model;
    std::minstd_rand random(7);
    constexpr std::size_t limit = 2'000'000;
    for (int step = 0; step < 600; ++step) {
        const std::size_t offset = random() % limit;
        const std::size_t size = 1 + random() % (step % 10 == 0 ? 300'000 : 9'000);
        switch (random() % 6) {
        case 0: {
            Ext4Volume::Changes changes;
            changes.size = offset;
            volume().setAttributes(file, changes);
            model.resize(offset);
            break;
        }
        case 1:
            volume().allocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, size);
            for (std::size_t i = offset; i < std::min(offset + size, model.size()); ++i)
                model[i] = std::byte{0};
            break;
        case 2:
            volume().allocate(file, step % 2 == 0 ? 0 : FALLOC_FL_ZERO_RANGE, offset, size);
            if (model.size() < offset + size) model.resize(offset + size);
            if (step % 2 != 0)
                std::fill_n(model.begin() + static_cast<std::ptrdiff_t>(offset), size,
                            std::byte{0});
            break;
        default: {
            const auto bytes = pattern(size, static_cast<unsigned>(step));
            ASSERT_EQ(volume().write(file, offset, bytes), size);
            if (model.size() < offset + size) model.resize(offset + size);
            std::copy(bytes.begin(), bytes.end(),
                      model.begin() + static_cast<std::ptrdiff_t>(offset));
        }
        }
        const std::size_t from = random() % limit;
        std::vector<std::byte> back(20'000);
        back.resize(volume().read(file, from, back));
        std::vector<std::byte> expected;
        if (from < model.size())
            expected.assign(model.begin() + static_cast<std::ptrdiff_t>(from),
                            model.begin() +
                                static_cast<std::ptrdiff_t>(std::min(from + 20'000, model.size())));
        ASSERT_EQ(back, expected) << "step " << step;
    }
    disk.close();
    EXPECT_EQ(disk.check(), "");
    const auto found = volume().lookup(root, "model");
    ASSERT_TRUE(found);
    ASSERT_EQ(static_cast<std::size_t>(found->st_size), model.size());
    std::vector<std::byte> all(model.size());
    volume().read(numberOf(*found), 0, all);
    EXPECT_EQ(all, model);
}

TEST_F(Ext4VolumeTest, AWriteMovesATimeInTheFarFutureBack) {
    const ext2_ino_t file = makeFile(root, "file");
    Ext4Volume::Changes changes;
    changes.modified = timespec{13'569'465'600, 0}; // the year 2400
    volume().write(file, 0, pattern(10, 1));
    volume().setAttributes(file, changes);
    volume().write(file, 0, pattern(10, 1));
    EXPECT_LT(volume().attributes(file).st_mtim.tv_sec, 13'569'465'600);
    expectClean();
}

TEST_F(Ext4VolumeTest, FindsDataAndHoles) {
    const ext2_ino_t file = makeFile(root, "sparse");
    volume().write(file, 1 << 20, pattern(4096, 3));
    volume().write(file, 3 << 20, pattern(100, 4));
    EXPECT_EQ(volume().seek(file, 0, SEEK_DATA), 1U << 20);
    EXPECT_EQ(volume().seek(file, 0, SEEK_HOLE), 0U);
    EXPECT_EQ(volume().seek(file, 1 << 20, SEEK_HOLE), (1U << 20) + 4096);
    EXPECT_EQ(volume().seek(file, (1 << 20) + 4096, SEEK_DATA), 3U << 20);
    EXPECT_EQ(volume().seek(file, 3 << 20, SEEK_HOLE), (3U << 20) + 100);
    EXPECT_EQ(errnoFrom([&] { volume().seek(file, 4 << 20, SEEK_DATA); }), ENXIO);
    EXPECT_EQ(volume().attributes(file).st_blocks, 16);
    expectClean();
}

TEST_F(Ext4VolumeTest, HoldsAManyTimesSplitFile) {
    const ext2_ino_t file = makeFile(root, "split");
    for (std::uint64_t i = 0; i < 3000; ++i) volume().write(file, i * 8192, pattern(4096, 5));
    disk.close();
    EXPECT_EQ(disk.check(), "");
    const ext2_ino_t again = numberOf(*volume().lookup(root, "split"));
    for (std::uint64_t i = 0; i < 3000; i += 2)
        volume().allocate(again, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, i * 8192, 4096);
    disk.close();
    EXPECT_EQ(disk.check(), "");
    volume().unlink(root, "split");
    expectClean();
}

TEST_F(Ext4VolumeTest, FillsReservedRoomInAnyOrder) {
    constexpr std::uint64_t blockSize = EncryptedImage::blockSize;
    constexpr std::uint64_t count = 8000;
    const ext2_ino_t file = makeFile(root, "reserved");
    volume().allocate(file, 0, 0, count * blockSize);
    std::vector<std::uint64_t> order(count);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::minstd_rand(5)); // NOLINT: the same each time
    std::vector<std::byte> block(blockSize);
    const auto stampOf = [](std::uint64_t at) { return static_cast<std::byte>(at % 251 + 1); };
    const auto expectAll = [&](std::size_t written) {
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < count; ++i) {
            volume().read(file, order[i] * blockSize, block);
            wrong += block.front() != (i < written ? stampOf(order[i]) : std::byte{0});
        }
        EXPECT_EQ(wrong, 0U) << "after " << written << " blocks";
    };
    for (std::size_t written = 0; written < count;) {
        std::fill(block.begin(), block.end(), stampOf(order[written]));
        ASSERT_EQ(volume().write(file, order[written] * blockSize, block), blockSize);
        if (++written % 1000 == 0) expectAll(written);
    }
    disk.close();
    EXPECT_EQ(disk.check(), "");
    expectAll(count);
}

TEST_F(Ext4VolumeTest, FreesAndTakesBlocksInAnyOrder) {
    constexpr std::uint64_t blockSize = EncryptedImage::blockSize;
    constexpr std::uint64_t count = 8000;
    const ext2_ino_t file = makeFile(root, "file");
    const std::vector<std::byte> block(blockSize, std::byte{7});
    volume().write(file, 0, std::vector<std::byte>(count * blockSize, std::byte{7}));
    std::minstd_rand random(6); // NOLINT: the same each time
    std::vector<bool> held(count, true);
    for (int round = 0; round < 20'000; ++round) {
        const std::uint64_t at = random() % count;
        const bool punch = random() % 5 < (round < 10'000 ? 3U : 1U);
        if (punch)
            volume().allocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at * blockSize,
                              blockSize);
        else
            volume().write(file, at * blockSize, block);
        held[at] = !punch;
    }
    disk.close();
    EXPECT_EQ(disk.check(), "");
    std::vector<std::byte> all(count * blockSize);
    volume().read(file, 0, all);
    for (std::uint64_t at = 0; at < count; ++at)
        ASSERT_EQ(all[at * blockSize], held[at] ? std::byte{7} : std::byte{0}) << at;
}

TEST_F(Ext4VolumeTest, KeepsTimesToTheNanosecondFarAway) {
    const ext2_ino_t file = makeFile(root, "old");
    for (const timespec when :
         {timespec{-2'000'000'000, 1}, timespec{0, 0}, timespec{1, 999'999'999},
          timespec{2'200'000'000, 5}, timespec{15'000'000'000, 7}}) {
        Ext4Volume::Changes changes;
        changes.accessed = when;
        changes.modified = when;
        volume().setAttributes(file, changes);
        const struct stat back = volume().attributes(file);
        EXPECT_EQ(back.st_mtim.tv_sec, when.tv_sec);
        EXPECT_EQ(back.st_mtim.tv_nsec, when.tv_nsec);
        EXPECT_EQ(back.st_atim.tv_sec, when.tv_sec);
    }
    expectClean();
}

TEST_F(Ext4VolumeTest, HoldsAttributesUpToABlock) {
    const ext2_ino_t file = makeFile(root, "attributes");
    std::map<std::string, std::vector<std::byte>> model;
    for (int i = 0; i < 20; ++i) {
        const std::string name = "user.name" + std::to_string(i);
        model[name] = pattern(static_cast<std::size_t>(i) * 12, static_cast<unsigned>(i));
        volume().setAttribute(file, name, model[name], XATTR_CREATE);
    }
    EXPECT_EQ(errnoFrom([&] { volume().setAttribute(file, "user.name1", {}, XATTR_CREATE); }),
              EEXIST);
    EXPECT_EQ(errnoFrom([&] { volume().setAttribute(file, "user.none", {}, XATTR_REPLACE); }),
              ENODATA);
    EXPECT_EQ(errnoFrom([&] { volume().setAttribute(file, "other.x", {}, 0); }), EOPNOTSUPP);
    EXPECT_EQ(errnoFrom([&] { volume().setAttribute(file, "user.", {}, 0); }), EINVAL);
    EXPECT_EQ(errnoFrom([&] { volume().setAttribute(file, "user.big", pattern(5000, 1), 0); }),
              ENOSPC);
    volume().removeAttribute(file, "user.name3");
    volume().removeAttribute(file, "system.posix_acl_access"); // there is none, as ever
    model.erase("user.name3");
    disk.close();
    EXPECT_EQ(disk.check(), "");
    const ext2_ino_t again = numberOf(*volume().lookup(root, "attributes"));
    for (const auto& [name, value] : model) EXPECT_EQ(volume().attribute(again, name), value);
    EXPECT_EQ(errnoFrom([&] { volume().attribute(again, "user.name3"); }), ENODATA);
    const std::string names = volume().attributeNames(again, false);
    EXPECT_EQ(static_cast<std::size_t>(std::count(names.begin(), names.end(), '\0')), model.size());
    volume().unlink(root, "attributes");
    volume().forget(again, 100);
    expectClean();
}

std::vector<std::byte> acl(const std::vector<std::array<unsigned, 3>>& entries) {
    std::vector<std::byte> bytes = {std::byte{2}, {}, {}, {}};
    for (const auto& [tag, permissions, id] : entries) {
        bytes.push_back(static_cast<std::byte>(tag));
        bytes.push_back({});
        bytes.push_back(static_cast<std::byte>(permissions));
        bytes.push_back({});
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(id >> (8 * i)));
    }
    return bytes;
}

TEST_F(Ext4VolumeTest, AccessListsAndModesFollowEachOther) {
    constexpr unsigned none = 0xffffffff;
    const ext2_ino_t file = makeFile(root, "listed");
    const auto list =
        acl({{1, 6, none}, {2, 7, 1234}, {4, 4, none}, {0x10, 6, none}, {0x20, 0, none}});
    volume().setAttribute(file, "system.posix_acl_access", list, 0);
    EXPECT_EQ(volume().attributes(file).st_mode & 0777, 0660U);
    EXPECT_EQ(volume().attribute(file, "system.posix_acl_access"), list);
    Ext4Volume::Changes changes;
    changes.mode = 0640;
    volume().setAttributes(file, changes);
    EXPECT_EQ(volume().attribute(file, "system.posix_acl_access"),
              acl({{1, 6, none}, {2, 7, 1234}, {4, 4, none}, {0x10, 4, none}, {0x20, 0, none}}));
    volume().setAttribute(file, "system.posix_acl_access",
                          acl({{1, 7, none}, {4, 5, none}, {0x20, 1, none}}), 0);
    EXPECT_EQ(volume().attributes(file).st_mode & 0777, 0751U);
    EXPECT_EQ(errnoFrom([&] { volume().attribute(file, "system.posix_acl_access"); }), ENODATA);

    const ext2_ino_t directory = makeDirectory(root, "d");
    volume().setAttribute(
        directory, "system.posix_acl_default",
        acl({{1, 7, none}, {2, 7, 1234}, {4, 5, none}, {0x10, 7, none}, {0x20, 0, none}}), 0);
    const ext2_ino_t child =
        numberOf(volume().create(directory, "child", {S_IFREG | 0666, 0, {}}, me));
    EXPECT_EQ(volume().attributes(child).st_mode & 0777, 0660U); // the umask does not count here
    EXPECT_EQ(volume().attribute(child, "system.posix_acl_access"),
              acl({{1, 6, none}, {2, 7, 1234}, {4, 5, none}, {0x10, 6, none}, {0x20, 0, none}}));
    const ext2_ino_t deeper = makeDirectory(directory, "deeper");
    EXPECT_EQ(volume().attribute(deeper, "system.posix_acl_default"),
              volume().attribute(directory, "system.posix_acl_default"));
    expectClean();
}

TEST_F(Ext4VolumeTest, KeepsItsFullNameToItself) {
    const std::string name = "Ein Name, der länger als sechzehn Bytes ist, für Fotos";
    volume().setName(name);
    EXPECT_EQ(volume().name(), name);
    EXPECT_EQ(volume().attributeNames(root, true), "");
    EXPECT_EQ(errnoFrom([&] { volume().attribute(root, "trusted.quillvane.name"); }), ENODATA);
    disk.close();
    EXPECT_EQ(volume().name(), name);
    expectClean();
}

TEST_F(Ext4VolumeTest, SaysWhenItIsFullAndStaysWhole) {
    const ext2_ino_t file = makeFile(root, "filler");
    const auto chunk = pattern(1 << 20, 2);
    int error = 0;
    for (std::uint64_t at = 0; error == 0;) {
        std::size_t written = 0;
        error = errnoFrom([&] { written = volume().write(file, at, chunk); });
        at += written;
        ASSERT_LE(at, 64U << 20);
    }
    EXPECT_EQ(error, ENOSPC);
    EXPECT_EQ(errnoFrom([&] { makeDirectory(root, "no room"); }), ENOSPC);
    EXPECT_FALSE(volume().lookup(root, "no room"));
    EXPECT_EQ(volume().statistics().f_bavail, 0U);
    disk.close();
    EXPECT_EQ(disk.check(), "");
    volume().unlink(root, "filler");
    volume().forget(file, 100);
    makeDirectory(root, "room");
    expectClean();
}

TEST_F(Ext4VolumeTest, SeesThatItWasNotClosed) {
    EXPECT_FALSE(Ext4Volume::needsCheck(disk.image()));
    const ext2_ino_t file = makeFile(root, "synced");
    const auto contents = pattern(50'000, 6);
    volume().write(file, 0, contents);
    volume().syncFile(file);
    disk.crash();
    EXPECT_TRUE(Ext4Volume::needsCheck(disk.image()));
    const auto plain = disk.decrypt();
    EXPECT_EQ(disk.check("-fn"), ""); // everything was synced
    disk.close();
}

TEST_F(Ext4VolumeTest, AsksForACheckAfterAFailureThatMayHaveLeftAChangeHalfWay) {
    makeFile(root, "file");
    volume().noteFailure(ENOSPC);
    disk.close();
    EXPECT_FALSE(Ext4Volume::needsCheck(disk.image()));
    makeFile(root, "another");
    volume().noteFailure(EIO);
    disk.close();
    EXPECT_TRUE(Ext4Volume::needsCheck(disk.image()));
}

TEST_F(Ext4VolumeTest, ReadOnlyRefusesEveryChange) {
    makeFile(root, "file");
    disk.close();
    const auto volume = Ext4Volume::open(disk.image(), true);
    EXPECT_TRUE(volume->lookup(root, "file"));
    EXPECT_EQ(errnoFrom([&] { volume->create(root, "n", {S_IFREG | 0644, 0, {}}, me); }), EROFS);
    EXPECT_EQ(errnoFrom([&] { volume->unlink(root, "file"); }), EROFS);
    EXPECT_EQ(errnoFrom([&] { volume->setAttributes(root, {}); }), EROFS);
    volume->close();
}

} // namespace
