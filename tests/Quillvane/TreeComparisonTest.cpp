#include "Quillvane/TreeComparison.h"
#include "Quillvane/OperationCancelled.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

TEST_F(TreeComparisonTest, SocketsAndFilesOfTheSystemAreAlikeToAnything) {
    writeFile(tree / ".DS_Store", "x");
    fs::create_directories(tree / ".Trashes/501");
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string path = tree / "socket";
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
    EXPECT_THAT(differences(), IsEmpty());
    writeFile(tree / "inner/.DS_Store", "x");
    EXPECT_THAT(differences(), ElementsAre("inner/.DS_Store"));
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

TEST_F(TreeComparisonTest, EndsOnRequest) {
    Cancellation cancellation;
    cancellation.request();
    EXPECT_THROW(TreeComparison::compare(tree, reference, Files::finished, &cancellation),
                 OperationCancelled);
}

TEST_F(TreeComparisonTest, RemovesATreeThatIsAlike) {
    fs::permissions(tree / "inner", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(TreeComparison::removeAlike(tree, reference, Files::finished).count, 0U);
    EXPECT_FALSE(fs::exists(tree));
    EXPECT_TRUE(fs::exists(reference / "inner/deep"));
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
