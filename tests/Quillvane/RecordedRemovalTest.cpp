#include "Quillvane/RecordedRemoval.h"
#include "Quillvane/FolderExamination.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using RecordedRemoval::Leftovers;

class RecordedRemovalTest : public testing::Test {
protected:
    RecordedRemovalTest() {
        fs::create_directories(docs / "a/b");
        fs::create_directory(docs / "empty");
        writeFile(docs / "a/b/deep", "deep");
        writeFile(docs / "file", "contents");
        fs::create_symlink("a", docs / "link");
        EXPECT_EQ(::mkfifo((docs / "fifo").c_str(), 0600), 0);
    }

    Leftovers removeAfter(const std::function<void()>& change) {
        const HeldFolder held(docs);
        const FolderRecord record = FolderExamination::record(held, nullptr);
        change();
        Leftovers leftovers;
        RecordedRemoval::remove(held, record, leftovers);
        return leftovers;
    }

    TemporaryFolder parent;
    fs::path docs = parent / "Docs";
};

TEST_F(RecordedRemovalTest, RemovesWhatIsAsRecorded) {
    const Leftovers left = removeAfter([] {});
    EXPECT_EQ(left.count, 0U);
    EXPECT_EQ(left.description(), "");
    EXPECT_TRUE(fs::is_empty(parent.path()));
}

TEST_F(RecordedRemovalTest, RemovesAllNamesOfAFile) {
    for (const char* name : {"a/second", "third", "empty/fourth"})
        fs::create_hard_link(docs / "file", docs / name);
    EXPECT_EQ(removeAfter([] {}).count, 0U);
    EXPECT_TRUE(fs::is_empty(parent.path()));
}

TEST_F(RecordedRemovalTest, KeepsWhatCameAndWhatChanged) {
    const Leftovers left = removeAfter([this] {
        writeFile(docs / "a/new", "new");
        writeFile(docs / "file", "CONTENTS");
        fs::create_directory(docs / "a/b/new folder");
    });
    EXPECT_EQ(readFile(docs / "a/new"), "new");
    EXPECT_EQ(readFile(docs / "file"), "CONTENTS");
    EXPECT_TRUE(fs::is_directory(docs / "a/b/new folder"));
    EXPECT_FALSE(fs::exists(docs / "a/b/deep"));
    EXPECT_FALSE(fs::exists(docs / "empty"));
    EXPECT_EQ(left.count, 3U);
}

TEST_F(RecordedRemovalTest, KeepsAFileThatWasReplaced) {
    removeAfter([this] {
        struct stat before {};
        ASSERT_EQ(::stat((docs / "file").c_str(), &before), 0);
        writeFile(parent / "other", "CONTENTS");
        const timespec times[] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::utimensat(AT_FDCWD, (parent / "other").c_str(), times, 0), 0);
        fs::rename(parent / "other", docs / "file");
    });
    EXPECT_EQ(readFile(docs / "file"), "CONTENTS");
}

TEST_F(RecordedRemovalTest, KeepsAFileThatSomebodyWritesTo) {
    int writer = -1;
    const Leftovers left =
        removeAfter([&] { writer = ::open((docs / "a/b/deep").c_str(), O_WRONLY); });
    EXPECT_EQ(readFile(docs / "a/b/deep"), "deep");
    EXPECT_EQ(left.description(),
              "Not deleted, because it was added or changed at the last moment: "
              "\"Docs/a/b/deep\". The protected item may lack its last changes.");
    ::close(writer);
}

TEST_F(RecordedRemovalTest, NamesSomeAndCountsTheRest) {
    const Leftovers left = removeAfter([this] {
        for (int number = 0; number < 5; ++number)
            writeFile(docs / ("a/new " + std::to_string(number)), "");
    });
    EXPECT_EQ(left.first.size(), Leftovers::namedEntries);
    EXPECT_TRUE(left.description().ends_with(
        "\" and 2 more. The protected item may lack its last changes."));
}

TEST_F(RecordedRemovalTest, KeepsAFolderInItsPlace) {
    const Leftovers left = removeAfter([this] {
        fs::rename(docs, parent / "elsewhere");
        fs::create_directories(docs / "empty");
    });
    EXPECT_TRUE(fs::exists(docs / "empty"));
    EXPECT_EQ(readFile(parent / "elsewhere/file"), "contents");
    EXPECT_EQ(left.first, std::vector<std::string>{"Docs"});
}

TEST_F(RecordedRemovalTest, AFolderThatIsGoneIsAFailure) {
    EXPECT_THROW(removeAfter([this] { fs::rename(docs, parent / "elsewhere"); }),
                 fs::filesystem_error);
    EXPECT_EQ(readFile(parent / "elsewhere/file"), "contents");
}

TEST_F(RecordedRemovalTest, AFolderThatCameAndIsClosedToUsStays) {
    EXPECT_TRUE(asOrdinaryUser(parent.path(), [&] {
        const fs::path own = parent / "own";
        fs::create_directory(own);
        writeFile(own / "file", "x");
        const HeldFolder held(own);
        const FolderRecord record = FolderExamination::record(held, nullptr);
        fs::create_directory(own / "closed");
        fs::permissions(own / "closed", fs::perms::none);
        Leftovers leftovers;
        RecordedRemoval::remove(held, record, leftovers);
        return leftovers.first == std::vector<std::string>{"own/closed"} &&
               !fs::exists(own / "file");
    }));
}

TEST_F(RecordedRemovalTest, WhatWasKeptIsToldOfAFailureToo) {
    EXPECT_TRUE(asOrdinaryUser(parent.path(), [&] {
        const fs::path own = parent / "own";
        fs::create_directory(own);
        writeFile(own / "file", "x");
        const HeldFolder held(own);
        const FolderRecord record = FolderExamination::record(held, nullptr);
        writeFile(own / "new", "");
        fs::permissions(parent.path(), fs::perms::owner_read | fs::perms::owner_exec);
        Leftovers leftovers;
        try {
            RecordedRemoval::remove(held, record, leftovers);
        } catch (const fs::filesystem_error&) {
            fs::permissions(parent.path(), fs::perms::owner_all);
            return leftovers.first == std::vector<std::string>{"own/new"};
        }
        return false;
    }));
}

TEST_F(RecordedRemovalTest, EmptiesNothingThatIsMountedInside) {
    const fs::path outside = parent / "outside";
    fs::create_directory(outside);
    writeFile(outside / "file", "outside");
    bool mounted = false;
    removeAfter([&] {
        mounted =
            ::mount(outside.c_str(), (docs / "empty").c_str(), nullptr, MS_BIND, nullptr) == 0;
    });
    if (!mounted) GTEST_SKIP() << "mounting is not permitted here";
    EXPECT_EQ(readFile(outside / "file"), "outside");
    ::umount((docs / "empty").c_str());
}

TEST_F(RecordedRemovalTest, FilesOfFileManagersAtTheTopGoInAnyCase) {
    EXPECT_EQ(removeAfter([this] { writeFile(docs / ".DS_Store", "new"); }).count, 0U);
    EXPECT_TRUE(fs::is_empty(parent.path()));
}

TEST_F(RecordedRemovalTest, WhereVolumesHoldNothingOfTheSystemsItsNamesAreTheUsers) {
    EXPECT_EQ(removeAfter([this] { writeFile(docs / ".VolumeIcon.icns", "new"); }).count, 1U);
    EXPECT_EQ(readFile(docs / ".VolumeIcon.icns"), "new");
}

TEST_F(RecordedRemovalTest, MakesFoldersWritable) {
    EXPECT_TRUE(asOrdinaryUser(parent.path(), [&] {
        const fs::path own = parent / "own";
        fs::create_directories(own / "read only");
        writeFile(own / "read only/file", "x");
        fs::permissions(own / "read only", fs::perms::owner_read | fs::perms::owner_exec);
        const HeldFolder held(own);
        const FolderRecord record = FolderExamination::record(held, nullptr);
        Leftovers leftovers;
        RecordedRemoval::remove(held, record, leftovers);
        return leftovers.count == 0 && !fs::exists(own);
    }));
}

TEST_F(RecordedRemovalTest, TellsWhatTheSystemKeeps) {
    EXPECT_TRUE(asOrdinaryUser(parent.path(), [&] {
        const fs::path own = parent / "own";
        fs::create_directory(own);
        const HeldFolder held(own);
        const FolderRecord record = FolderExamination::record(held, nullptr);
        fs::permissions(parent.path(), fs::perms::owner_read | fs::perms::owner_exec);
        Leftovers leftovers;
        try {
            RecordedRemoval::remove(held, record, leftovers);
        } catch (const fs::filesystem_error& error) {
            fs::permissions(parent.path(), fs::perms::owner_all);
            return error.path1() == "own" && error.code() == std::errc::permission_denied;
        }
        return false;
    }));
}

} // namespace
