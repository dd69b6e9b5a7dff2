#include "PlainVolume.h"

#include "linux/hdiutil/PosixAcl.h"

#include <gtest/gtest.h>

#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace {

const Ext4Volume::Caller me{1000, 1000, 022};

template <typename Work> int errnoFrom(Work work) {
    try {
        work();
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

ext2_ino_t numberOf(const struct stat& attributes) {
    return static_cast<ext2_ino_t>(attributes.st_ino);
}

std::vector<std::byte> pattern(std::size_t size, unsigned seed) {
    std::vector<std::byte> bytes(size);
    std::minstd_rand random(seed);
    for (std::byte& byte : bytes) byte = static_cast<std::byte>(random());
    return bytes;
}

class Ext4VolumeTest : public testing::Test {
protected:
    Ext4Volume& volume() { return disk.volume(); }
    ext2_ino_t makeFile(ext2_ino_t parent, std::string_view name, mode_t mode = 0644) {
        return numberOf(volume().create(parent, name, {S_IFREG | mode, 0, {}}, me));
    }
    ext2_ino_t makeDirectory(ext2_ino_t parent, std::string_view name) {
        return numberOf(volume().create(parent, name, {S_IFDIR | 0755, 0, {}}, me));
    }
    void expectClean() {
        disk.close();
        EXPECT_EQ(disk.check(), "");
    }
    std::vector<std::string> list(ext2_ino_t directory) {
        std::vector<std::string> names;
        volume().readDirectory(directory, 0, [&](const Directory::Entry& entry) {
            names.emplace_back(entry.name);
            return true;
        });
        return names;
    }

    static constexpr ext2_ino_t root = Ext4Volume::root;
    PlainVolume disk;
};

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

TEST_F(Ext4VolumeTest, HoldsADirectoryOfManyNames) {
    const ext2_ino_t directory = makeDirectory(root, "many");
    const ext2_ino_t file = makeFile(root, "one");
    constexpr int count = 20'000;
    for (int i = 0; i < count; ++i) volume().link(file, directory, "name " + std::to_string(i));
    EXPECT_EQ(list(directory).size(), count + 2U);
    disk.close();
    EXPECT_EQ(disk.check(), "");
    const ext2_ino_t again = numberOf(*volume().lookup(root, "many"));
    for (int i = 0; i < count; i += 2) volume().unlink(again, "name " + std::to_string(i));
    EXPECT_FALSE(volume().lookup(again, "name 0"));
    EXPECT_TRUE(volume().lookup(again, "name 1"));
    for (int i = 0; i < count; i += 2)
        volume().link(numberOf(*volume().lookup(root, "one")), again, "new " + std::to_string(i));
    const auto names = list(again);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), count + 2U);
    expectClean();
}

TEST_F(Ext4VolumeTest, ListsOnFromAnyPlaceWhileNamesComeAndGo) {
    const ext2_ino_t directory = makeDirectory(root, "moving");
    for (int i = 0; i < 500; ++i) makeFile(directory, "stays" + std::to_string(i));
    for (int i = 0; i < 500; ++i) makeFile(directory, "goes" + std::to_string(i));
    std::multiset<std::string> seen;
    std::uint64_t from = 0;
    for (int round = 0, gone = 0;; ++round) {
        int batch = 0;
        volume().readDirectory(directory, from, [&](const Directory::Entry& entry) {
            if (batch++ == 7) return false;
            seen.emplace(entry.name);
            from = entry.next;
            return true;
        });
        if (batch < 8) break;
        if (gone < 500) volume().unlink(directory, "goes" + std::to_string(gone++));
        makeFile(directory, "new" + std::to_string(round));
    }
    for (int i = 0; i < 500; ++i) EXPECT_EQ(seen.count("stays" + std::to_string(i)), 1U) << i;
    expectClean();
}

TEST_F(Ext4VolumeTest, RefusesNamesThatExt4CannotHold) {
    const std::string longest(255, 'x');
    const std::string tooLong(256, 'x');
    const ext2_ino_t file = makeFile(root, longest);
    const std::vector<std::function<void()>> attempts = {
        [&] { makeFile(root, tooLong); }, [&] { volume().lookup(root, tooLong); },
        [&] { volume().link(file, root, tooLong); },
        [&] { volume().rename(root, longest, root, tooLong, 0); },
        [&] {
            volume().create(root, "l", {S_IFLNK | 0777, 0, std::string(4096, 't')}, me);
        }};
    for (const auto& attempt : attempts) EXPECT_EQ(errnoFrom(attempt), ENAMETOOLONG);
    EXPECT_TRUE(volume().lookup(root, longest));
    expectClean();
}

TEST_F(Ext4VolumeTest, RenamesInEveryWay) {
    const ext2_ino_t one = makeDirectory(root, "one");
    const ext2_ino_t two = makeDirectory(root, "two");
    const ext2_ino_t file = makeFile(one, "file");
    const ext2_ino_t other = makeFile(two, "other");
    const ext2_ino_t below = makeDirectory(one, "below");

    volume().rename(one, "file", two, "moved", 0);
    EXPECT_EQ(numberOf(*volume().lookup(two, "moved")), file);
    EXPECT_EQ(errnoFrom([&] { volume().rename(two, "moved", two, "other", RENAME_NOREPLACE); }),
              EEXIST);
    volume().rename(two, "moved", one, "below", RENAME_EXCHANGE);
    EXPECT_EQ(numberOf(*volume().lookup(two, "moved")), below);
    EXPECT_EQ(volume().lookup(two, "moved")->st_nlink, 2U);
    EXPECT_EQ(volume().attributes(one).st_nlink, 2U);
    EXPECT_EQ(volume().attributes(two).st_nlink, 3U);
    volume().rename(one, "below", two, "other", 0);
    EXPECT_EQ(numberOf(*volume().lookup(two, "other")), file);
    volume().forget(other, 100);
    EXPECT_EQ(errnoFrom([&] { volume().rename(two, "other", two, "moved", 0); }), EISDIR);
    EXPECT_EQ(errnoFrom([&] { volume().rename(two, "moved", two, "other", 0); }), ENOTDIR);
    EXPECT_EQ(errnoFrom([&] { volume().rename(two, "other", two, "w", RENAME_WHITEOUT); }), EINVAL);
    makeDirectory(root, "empty");
    volume().rename(root, "two", root, "empty", 0);
    EXPECT_EQ(errnoFrom([&] { volume().rename(root, "one", root, "empty", 0); }), ENOTEMPTY);
    EXPECT_EQ(volume().attributes(root).st_nlink, 5U); // ".", "..", one, empty, lost+found
    expectClean();
}

TEST_F(Ext4VolumeTest, KeepsAFileWithoutANameUntilItsLastReference) {
    const std::uint64_t free = volume().statistics().f_bfree;
    const ext2_ino_t file = makeFile(root, "open");
    const auto contents = pattern(100'000, 9);
    volume().write(file, 0, contents);
    volume().unlink(root, "open");
    EXPECT_EQ(volume().attributes(file).st_nlink, 0U);
    std::vector<std::byte> back(contents.size());
    volume().read(file, 0, back);
    EXPECT_EQ(back, contents);
    EXPECT_LT(volume().statistics().f_bfree, free);
    volume().forget(file, 1);
    EXPECT_EQ(volume().statistics().f_bfree, free);
    EXPECT_EQ(errnoFrom([&] { volume().rename(root, "open", root, "x", 0); }), ENOENT);

    const ext2_ino_t kept = makeFile(root, "kept");
    volume().write(kept, 0, contents);
    volume().unlink(root, "kept");
    expectClean(); // closing frees what is still referenced
}

TEST_F(Ext4VolumeTest, HoldsLinksOfEveryLengthAndSpecialFiles) {
    for (const std::size_t length : {1U, 59U, 60U, 61U, 4095U}) {
        const std::string target(length, 'y');
        const std::string name = "link" + std::to_string(length);
        const ext2_ino_t link =
            numberOf(volume().create(root, name, {S_IFLNK | 0777, 0, target}, me));
        EXPECT_EQ(volume().readLink(link), target);
        EXPECT_EQ(volume().attributes(link).st_size, static_cast<off_t>(length));
        EXPECT_EQ(volume().attributes(link).st_mode, static_cast<mode_t>(S_IFLNK | 0777));
    }
    for (const dev_t device : {makedev(8, 1), makedev(300, 70'000)}) {
        const std::string name = "device" + std::to_string(device);
        volume().create(root, name, {S_IFBLK | 0600, device, {}}, me);
        EXPECT_EQ(volume().lookup(root, name)->st_rdev, device);
    }
    volume().create(root, "fifo", {S_IFIFO | 0644, 0, {}}, me);
    EXPECT_EQ(volume().lookup(root, "fifo")->st_mode, static_cast<mode_t>(S_IFIFO | 0644));
    expectClean();
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

TEST_F(Ext4VolumeTest, HidesLostAndFoundUntilSomebodyWantsTheName) {
    EXPECT_FALSE(volume().lookup(root, "lost+found"));
    EXPECT_EQ(list(root), (std::vector<std::string>{".", ".."}));
    makeDirectory(root, "lost+found");
    EXPECT_EQ(list(root), (std::vector<std::string>{".", "..", "lost+found"}));
    disk.close();
    EXPECT_EQ(disk.check(), "");
    EXPECT_TRUE(volume().lookup(root, "lost+found"));
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

TEST_F(Ext4VolumeTest, InheritsTheGroupOfASetGroupIdDirectory) {
    const ext2_ino_t directory = makeDirectory(root, "shared");
    Ext4Volume::Changes changes;
    changes.mode = 02775;
    changes.group = 4321;
    volume().setAttributes(directory, changes);
    const ext2_ino_t file = makeFile(directory, "f");
    const ext2_ino_t below = makeDirectory(directory, "d");
    EXPECT_EQ(volume().attributes(file).st_gid, 4321U);
    EXPECT_EQ(volume().attributes(below).st_mode & 07777, 02755U);
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
