#include "Quillvane/TreeComparison.h"
#include "Quillvane/OperationCancelled.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TreeComparison::Files;

/// A tree and an exact copy of it.
class TreeComparisonTest : public testing::Test {
protected:
    TreeComparisonTest() {
        fs::create_directories(reference / "inner/empty");
        writeFile(reference / "file", "contents");
        writeFile(reference / "inner/deep", std::string(700'000, 'd'));
        fs::create_symlink("file", reference / "link");
        ::mkfifo((reference / "fifo").c_str(), 0600);
        copy();
    }

    void copy() {
        const std::string command = "rm -rf '" + tree.string() + "' && cp -a '" +
                                    reference.string() + "' '" + tree.string() + "'";
        if (std::system(command.c_str()) != 0) throw std::runtime_error("no copy");
    }
    std::vector<fs::path> differences(Files files = Files::finished) const {
        return TreeComparison::compare(tree, reference, files).first;
    }
    /// Changes a file's contents and nothing else that can be seen.
    static void overwrite(const fs::path& file, const std::string& contents) {
        struct stat before {};
        ::stat(file.c_str(), &before);
        writeFile(file, contents);
        const timespec times[2]{before.st_atim, before.st_mtim};
        ::utimensat(AT_FDCWD, file.c_str(), times, 0);
    }

    static void setAttribute(const fs::path& entry, const char* name, const std::string& value) {
        ASSERT_EQ(::lsetxattr(entry.c_str(), name, value.data(), value.size(), 0), 0) << entry;
    }

    TemporaryFolder folder;
    fs::path tree = folder / "tree";
    fs::path reference = folder / "reference";
};

TEST_F(TreeComparisonTest, ACopyIsAlike) {
    EXPECT_EQ(TreeComparison::compare(tree, reference, Files::finished).count, 0U);
}

TEST_F(TreeComparisonTest, WhatOnlyTheReferenceHasDoesNotMatter) {
    writeFile(reference / "more", "x");
    fs::remove_all(tree / "inner");
    EXPECT_THAT(differences(), IsEmpty());
}

TEST_F(TreeComparisonTest, NamesWhatIsNotAlike) {
    const std::pair<fs::path, std::function<void()>> changes[] = {
        {"file", [this] { overwrite(tree / "file", "Contents"); }},
        {"file", [this] { fs::permissions(tree / "file", fs::perms::owner_read); }},
        {"file", [this] { fs::last_write_time(tree / "file", fs::file_time_type::clock::now()); }},
        {"inner/deep", [this] { overwrite(tree / "inner/deep", std::string(699'999, 'd') + "e"); }},
        {"inner/deep", [this] { overwrite(tree / "inner/deep", std::string(700'001, 'd')); }},
        {"new", [this] { writeFile(tree / "new", ""); }},
        {"inner/new", [this] { fs::create_directory(tree / "inner/new"); }},
        {"link",
         [this] {
             fs::remove(tree / "link");
             fs::create_symlink("fil", tree / "link");
         }},
        {"fifo",
         [this] {
             fs::remove(tree / "fifo");
             writeFile(tree / "fifo", "");
         }},
    };
    for (const auto& [name, change] : changes) {
        copy();
        change();
        EXPECT_THAT(differences(), ElementsAre(name));
    }
}

TEST_F(TreeComparisonTest, CountsAllAndNamesAFew) {
    for (int i = 0; i < 10; ++i) writeFile(tree / ("new " + std::to_string(i)), "");
    const auto found = TreeComparison::compare(tree, reference, Files::finished);
    EXPECT_EQ(found.count, 10U);
    EXPECT_EQ(found.first.size(), 3U);
}

TEST_F(TreeComparisonTest, DoesNotFollowLinksOfTheReference) {
    fs::rename(reference / "inner", folder / "elsewhere");
    fs::create_directory_symlink(folder / "elsewhere", reference / "inner");
    EXPECT_THAT(differences(), UnorderedElementsAre("inner", "inner/empty", "inner/deep"));
}

TEST_F(TreeComparisonTest, SocketsAreAlikeToAnything) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string path = tree / "socket";
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
    EXPECT_THAT(differences(), IsEmpty());
}

TEST_F(TreeComparisonTest, WhereVolumesHoldNothingOfTheSystemsItsNamesAreTheUsers) {
    fs::create_directories(reference / ".Trashes/501");
    writeFile(reference / ".Trashes/501/deleted", "old");
    copy();
    EXPECT_THAT(differences(), IsEmpty());
    writeFile(tree / ".Trashes/501/deleted", "new");
    writeFile(tree / ".VolumeIcon.icns", "x");
    fs::create_directory(tree / ".DS_Store");
    writeFile(tree / ".DS_Store/file", "x");
    const std::size_t common = TreeComparison::recordAlike(reference, reference).size();
    EXPECT_EQ(TreeComparison::recordAlike(tree, reference).size(), common - 1);
    EXPECT_EQ(TreeComparison::removeAlike(tree, reference, Files::finished).count, 4U);
    EXPECT_EQ(readFile(tree / ".Trashes/501/deleted"), "new");
    EXPECT_EQ(readFile(tree / ".VolumeIcon.icns"), "x");
    EXPECT_EQ(readFile(tree / ".DS_Store/file"), "x");
}

TEST_F(TreeComparisonTest, WhatFileManagersKeepIsAlikeToAnything) {
    writeFile(tree / ".DS_Store", "x");
    writeFile(tree / "inner/.DS_Store", "x");
    writeFile(reference / "inner/empty/.DS_Store", "one");
    writeFile(tree / "inner/empty/.DS_Store", "another");
    EXPECT_THAT(differences(), IsEmpty());
    fs::create_directory(tree / "inner/empty/folder");
    fs::create_directory(tree / "inner/empty/folder/.DS_Store");
    EXPECT_THAT(differences(),
                UnorderedElementsAre("inner/empty/folder", "inner/empty/folder/.DS_Store"));
}

TEST_F(TreeComparisonTest, AttributesBelongToIt) {
    for (const fs::path name : {"", "file", "inner", "inner/empty"}) {
        copy();
        setAttribute(tree / name, "user.note", "one");
        EXPECT_THAT(differences(), ElementsAre(name)) << "more of them";
        EXPECT_THAT(differences(Files::unfinished), ElementsAre(name)) << "more of them";
        setAttribute(reference / name, "user.note", "another");
        EXPECT_THAT(differences(), ElementsAre(name)) << "another value";
        EXPECT_THAT(differences(Files::unfinished), ElementsAre(name)) << "another value";
        ::removexattr((tree / name).c_str(), "user.note");
        EXPECT_THAT(differences(), ElementsAre(name)) << "fewer of them";
        EXPECT_THAT(differences(Files::unfinished), IsEmpty()) << "fewer of them";
        setAttribute(tree / name, "user.note", "another");
        EXPECT_THAT(differences(), IsEmpty());
        ::removexattr((reference / name).c_str(), "user.note");
    }
}

TEST_F(TreeComparisonTest, AccessListsBelongToIt) {
    // Version 2; user::rwx, user:65533:r, group::r, mask::r, other::-, each of tag, rights and id.
    const auto word = [](unsigned value, int bytes) {
        std::string text;
        for (; bytes > 0; --bytes, value >>= 8) text += static_cast<char>(value & 0xff);
        return text;
    };
    std::string list = word(2, 4);
    const unsigned entries[][3] = {
        {1, 7, ~0U}, {2, 4, 65533}, {4, 4, ~0U}, {0x10, 4, ~0U}, {0x20, 0, ~0U}};
    for (const auto& entry : entries)
        list += word(entry[0], 2) + word(entry[1], 2) + word(entry[2], 4);
    setAttribute(tree / "inner", "system.posix_acl_default", list);
    EXPECT_THAT(differences(), ElementsAre("inner"));
    EXPECT_THAT(differences(Files::unfinished), ElementsAre("inner"));
    setAttribute(reference / "inner", "system.posix_acl_default", list);
    EXPECT_THAT(differences(), IsEmpty());
}

TEST_F(TreeComparisonTest, ModesOfFoldersBelongToIt) {
    fs::permissions(reference / "inner", fs::perms(0500));
    fs::permissions(tree / "inner", fs::perms(0550));
    EXPECT_THAT(differences(), ElementsAre("inner"));
    EXPECT_THAT(differences(Files::unfinished), ElementsAre("inner")) << "a right too many";
    fs::permissions(tree / "inner", fs::perms(0700));
    EXPECT_THAT(differences(), IsEmpty()) << "as a deletion that was cut short leaves it";
    fs::permissions(reference / "inner", fs::perms(0750));
    EXPECT_THAT(differences(), ElementsAre("inner"));
    EXPECT_THAT(differences(Files::unfinished), IsEmpty()) << "a right that it has not got yet";
}

TEST_F(TreeComparisonTest, OwnersBelongToItWhereTheyCanBeKept) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    for (const char* name : {"file", "inner", "fifo", "link"}) {
        copy();
        ASSERT_EQ(::fchownat(AT_FDCWD, (tree / name).c_str(), 65533, static_cast<gid_t>(-1),
                             AT_SYMLINK_NOFOLLOW),
                  0);
        EXPECT_THAT(differences(), ElementsAre(name));
        EXPECT_THAT(differences(Files::unfinished), ElementsAre(name));
        copy();
        ASSERT_EQ(::fchownat(AT_FDCWD, (tree / name).c_str(), static_cast<uid_t>(-1), 65533,
                             AT_SYMLINK_NOFOLLOW),
                  0);
        EXPECT_THAT(differences(), ElementsAre(name));
    }
}

TEST_F(TreeComparisonTest, AnOrdinaryUsersCopyIsTheUsersOwn) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become an ordinary user";
    ASSERT_EQ(::chown((reference / "file").c_str(), 65533, 65533), 0);
    ::chmod((reference / "file").c_str(), 06755);
    copy();
    ASSERT_EQ(::chown((tree / "file").c_str(), 65534, 65534), 0);
    ::chmod((tree / "file").c_str(), 0755);
    ::chmod(folder.path().c_str(), 0755);
    EXPECT_THAT(differences(), ElementsAre("file"));
    ASSERT_EQ(::seteuid(65534), 0);
    const auto found = differences();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(found, IsEmpty());
}

TEST_F(TreeComparisonTest, TimesMayBeCoarser) {
    const auto setTime = [](const fs::path& file, timespec time) {
        const timespec times[2]{time, time};
        ::utimensat(AT_FDCWD, file.c_str(), times, 0);
    };
    setTime(reference / "file", {1'000'000'001, 123'456'789});
    for (const timespec coarse :
         {timespec{1'000'000'001, 123'456'700}, {1'000'000'001, 0}, {1'000'000'000, 0}}) {
        setTime(tree / "file", coarse);
        EXPECT_THAT(differences(), IsEmpty());
    }
    setTime(tree / "file", {1'000'000'001, 123'456'788});
    EXPECT_THAT(differences(), ElementsAre("file"));
    setTime(tree / "file", {1'000'000'002, 0});
    EXPECT_THAT(differences(), ElementsAre("file"));
}

TEST_F(TreeComparisonTest, AnUnfinishedFileHasNothingButWhatTheOtherHas) {
    writeFile(tree / "file", "cont");
    writeFile(tree / "inner/deep", std::string(300'000, '\0') + std::string(100'000, 'd'));
    EXPECT_THAT(differences(Files::unfinished), IsEmpty());
    EXPECT_THAT(differences(), UnorderedElementsAre("file", "inner/deep"));
    writeFile(tree / "file", "con7");
    writeFile(tree / "inner/deep", std::string(700'001, '\0'));
    EXPECT_THAT(differences(Files::unfinished), UnorderedElementsAre("file", "inner/deep"));
}

TEST_F(TreeComparisonTest, RecordsNoFileThatWasOverwritten) {
    const std::size_t whole = TreeComparison::recordAlike(tree, reference).size();
    EXPECT_GT(whole, 3U);
    overwrite(tree / "file", "CONTENTS");
    EXPECT_EQ(TreeComparison::recordAlike(tree, reference).size(), whole - 1);
    writeFile(tree / "inner/deep", std::string(300'000, '\0') + std::string(100'000, 'd'));
    EXPECT_EQ(TreeComparison::recordAlike(tree, reference).size(), whole - 1) << "cut short";
}

TEST_F(TreeComparisonTest, EndsOnRequest) {
    Cancellation cancellation;
    cancellation.request();
    EXPECT_THROW(TreeComparison::compare(tree, reference, Files::finished, &cancellation),
                 OperationCancelled);
}

TEST_F(TreeComparisonTest, RemovesATreeThatIsAlike) {
    for (const fs::path& inner : {tree / "inner", reference / "inner"})
        fs::permissions(inner, fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(TreeComparison::removeAlike(tree, reference, Files::finished).count, 0U);
    fs::permissions(reference / "inner", fs::perms::owner_all);
    EXPECT_FALSE(fs::exists(tree));
    EXPECT_TRUE(fs::exists(reference / "inner/deep"));
}

TEST_F(TreeComparisonTest, RemovesNoFolderWithAttributesOfItsOwn) {
    setAttribute(tree / "inner", "user.note", "mine");
    const auto left = TreeComparison::removeAlike(tree, reference, Files::finished);
    EXPECT_THAT(left.first, ElementsAre("inner"));
    EXPECT_TRUE(fs::is_empty(tree / "inner"));
}

TEST_F(TreeComparisonTest, RemovesNoFileThatIsOpenForWriting) {
    const int fd = ::open((tree / "file").c_str(), O_WRONLY | O_CLOEXEC);
    const auto left = TreeComparison::removeAlike(tree, reference, Files::finished);
    ::close(fd);
    EXPECT_THAT(left.first, ElementsAre("file"));
    EXPECT_EQ(readFile(tree / "file"), "contents");
    EXPECT_FALSE(fs::exists(tree / "inner"));
}

TEST_F(TreeComparisonTest, RemovesNoFileThatIsTouchedMeanwhile) {
    writeFile(reference / "large", std::string(std::size_t{64} << 20, 'l'));
    copy();
    struct stat status {};
    ::stat((tree / "large").c_str(), &status);
    std::atomic_bool ended = false;
    std::thread user([&] {
        const timespec times[2]{status.st_atim, status.st_mtim};
        while (!ended) ::utimensat(AT_FDCWD, (tree / "large").c_str(), times, 0);
    });
    const auto left = TreeComparison::removeAlike(tree, reference, Files::finished);
    ended = true;
    user.join();
    EXPECT_THAT(left.first, ElementsAre("large"));
    EXPECT_TRUE(fs::exists(tree / "large"));
}

TEST_F(TreeComparisonTest, WhatCannotBeDeletedIsAFailure) {
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        const fs::path place = folder / "place";
        for (const char* name : {"tree", "reference"}) {
            fs::create_directories(place / name);
            writeFile(place / name / "file", "contents");
            fs::last_write_time(place / name / "file", {});
        }
        fs::permissions(place, fs::perms::owner_read | fs::perms::owner_exec);
        try {
            TreeComparison::removeAlike(place / "tree", place / "reference", Files::finished);
        } catch (const fs::filesystem_error& error) {
            fs::permissions(place, fs::perms::owner_all);
            return error.path1() == place / "tree" && !fs::exists(place / "tree/file");
        }
        return false;
    }));
}

TEST_F(TreeComparisonTest, RemovesWhatADeletionWasInterruptedAt) {
    fs::rename(tree / "inner/deep", tree / "inner/.quillvane-0123456789abcdef.tmp");
    fs::rename(tree / "file", tree / ".quillvane-0123456789abcdef.tmp");
    overwrite(tree / ".quillvane-0123456789abcdef.tmp", "CONTENTS");
    EXPECT_EQ(TreeComparison::removeAlike(tree, reference, Files::finished).count, 1U);
    EXPECT_EQ(readFile(tree / ".quillvane-0123456789abcdef.tmp"), "CONTENTS");
    EXPECT_FALSE(fs::exists(tree / "inner"));
}

TEST_F(TreeComparisonTest, RemovesLinksThatADeletionWasInterruptedAt) {
    const fs::path alike = tree / ".quillvane-0123456789abcdef.tmp";
    const fs::path other = tree / ".quillvane-0123456789abcdee.tmp";
    for (const Files files : {Files::finished, Files::any}) {
        copy();
        fs::rename(tree / "link", alike);
        fs::rename(tree / "fifo", tree / ".quillvane-0123456789abcded.tmp");
        fs::create_symlink("somewhere", other);
        EXPECT_THAT(TreeComparison::removeAlike(tree, reference, files).first,
                    ElementsAre(other.filename()));
        EXPECT_FALSE(fs::is_symlink(alike));
        EXPECT_EQ(fs::read_symlink(other), "somewhere");
        fs::remove(other);
    }
}

TEST_F(TreeComparisonTest, LeavesWhatIsNotAlike) {
    overwrite(tree / "file", "Contents");
    writeFile(tree / "inner/new", "x");
    fs::create_directory(tree / "inner/empty/new folder");
    const auto left = TreeComparison::removeAlike(tree, reference, Files::finished);
    EXPECT_EQ(left.count, 3U);
    EXPECT_THAT(left.first, UnorderedElementsAre("file", "inner/new", "inner/empty/new folder"));
    EXPECT_EQ(readFile(tree / "file"), "Contents");
    EXPECT_EQ(readFile(tree / "inner/new"), "x");
    EXPECT_TRUE(fs::exists(tree / "inner/empty/new folder"));
    EXPECT_FALSE(fs::exists(tree / "inner/deep"));
    EXPECT_FALSE(fs::exists(tree / "fifo"));
}

} // namespace
