#include "Quillvane/DurableFile.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

TEST(DurableFile, ReplacesContentsAndSetsTheMode) {
    const TemporaryFolder folder;
    writeFile(folder / "file", "old");
    DurableFile::replace(folder / "file", "new", 0640);
    EXPECT_EQ(readFile(folder / "file"), "new");
    struct stat status {};
    ASSERT_EQ(::stat((folder / "file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST(DurableFile, AFullDiskLeavesTheOldFileAndNothingElse) {
    const TemporaryFolder folder;
    writeFile(folder / "file", "old");
    const std::string tooMuch(8192, 'x');
    const pid_t child = ::fork();
    if (child == 0) {
        // A limit on the file size stands in for a full disk: the write comes up short, then fails.
        static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        try {
            DurableFile::replace(folder / "file", tooMuch, 0600);
        } catch (const fs::filesystem_error& error) {
            ::_exit(error.code() == std::errc::file_too_large ? 0 : 2);
        }
        ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(readFile(folder / "file"), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 1);
}

TEST(DurableFile, WhatAKilledProcessLeavesIsNotInTheWay) {
    const TemporaryFolder folder;
    const pid_t child = ::fork();
    if (child == 0) {
        // The signal for a file that becomes too large kills, in the middle of writing.
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        DurableFile::replace(folder / "file", std::string(8192, 'x'), 0600);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    DurableFile::replace(folder / "file", "new", 0600);
    EXPECT_EQ(readFile(folder / "file"), "new");
}

TEST(DurableFile, TellsWhatCannotBeSynced) {
    const TemporaryFolder folder;
    EXPECT_THROW(DurableFile::syncFile(folder / "missing"), fs::filesystem_error);
    EXPECT_THROW(DurableFile::syncDirectory(folder / "missing"), fs::filesystem_error);
    EXPECT_NO_THROW(DurableFile::syncDirectory(folder.path()));
}

} // namespace
