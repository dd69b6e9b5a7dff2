#include "Ext4VolumeFixture.h"

#include <gtest/gtest.h>

#include <linux/fs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

namespace {

class Ext4NamespaceTest : public Ext4VolumeTest {};

TEST_F(Ext4NamespaceTest, HoldsADirectoryOfManyNames) {
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

TEST_F(Ext4NamespaceTest, ListsOnFromAnyPlaceWhileNamesComeAndGo) {
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

TEST_F(Ext4NamespaceTest, RefusesNamesThatExt4CannotHold) {
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

TEST_F(Ext4NamespaceTest, RenamesInEveryWay) {
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

TEST_F(Ext4NamespaceTest, KeepsAFileWithoutANameUntilItsLastReference) {
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

TEST_F(Ext4NamespaceTest, HoldsLinksOfEveryLengthAndSpecialFiles) {
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

TEST_F(Ext4NamespaceTest, HidesLostAndFoundUntilSomebodyWantsTheName) {
    EXPECT_FALSE(volume().lookup(root, "lost+found"));
    EXPECT_EQ(list(root), (std::vector<std::string>{".", ".."}));
    makeDirectory(root, "lost+found");
    EXPECT_EQ(list(root), (std::vector<std::string>{".", "..", "lost+found"}));
    disk.close();
    EXPECT_EQ(disk.check(), "");
    EXPECT_TRUE(volume().lookup(root, "lost+found"));
    expectClean();
}

TEST_F(Ext4NamespaceTest, InheritsTheGroupOfASetGroupIdDirectory) {
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

} // namespace
