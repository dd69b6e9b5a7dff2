#include "Quillvane/DurableFile.h"
#include "Quillvane/FileDescriptor.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/// What syncing a directory fails with; 0 when it does not.
int directorySyncError = 0;
/// Called once, before the next sync of a file.
std::function<void()> beforeSync;
/// Called once, before the next lock of a file.
std::function<void()> beforeLock;

bool isDirectory(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

// These stand before the system's own in the whole program.
extern "C" {
int fsync(int fd) {
    if (isDirectory(fd) && directorySyncError != 0) {
        errno = directorySyncError;
        return -1;
    }
    if (beforeSync) std::exchange(beforeSync, nullptr)();
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

int flock(int fd, int operation) noexcept {
    if (beforeLock) std::exchange(beforeLock, nullptr)();
    return static_cast<int>(::syscall(SYS_flock, fd, operation));
}
}

namespace {

namespace fs = std::filesystem;

constexpr const char* abandonedName = ".quillvane-0123456789abcdef.tmp";

class DurableFileTest : public testing::Test {
protected:
    ~DurableFileTest() override {
        directorySyncError = 0;
        beforeSync = nullptr;
        beforeLock = nullptr;
    }

    static mode_t modeOf(const fs::path& path) {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(folder.path()))
            found.push_back(entry.path().filename());
        std::ranges::sort(found);
        return found;
    }
    /// The one file that is there for a moment.
    fs::path temporary() const {
        for (const std::string& name : names())
            if (name.starts_with(".quillvane-")) return folder / name;
        throw std::logic_error("there is no temporary file");
    }

    TemporaryFolder folder;
    fs::path file = folder / "file";
};

TEST_F(DurableFileTest, ReplacesContentsAndSetsTheMode) {
    writeFile(file, "old");
    DurableFile::replace(file, "new", 0640);
    EXPECT_EQ(readFile(file), "new");
    EXPECT_EQ(modeOf(file), 0640U);
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(DurableFileTest, WritesUnderANameThatIsNewEachTime) {
    std::set<std::string> seen;
    for (int i = 0; i < 3; ++i) {
        beforeSync = [&] { seen.insert(temporary().filename()); };
        DurableFile::replace(file, "new", 0600);
    }
    EXPECT_EQ(seen.size(), 3U);
}

TEST_F(DurableFileTest, AFullDiskLeavesTheOldFileAndNothingElse) {
    writeFile(file, "old");
    const std::string tooMuch(8192, 'x');
    const pid_t child = ::fork();
    if (child == 0) {
        // A limit on the file size stands in for a full disk: the write comes up short, then fails.
        static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        try {
            DurableFile::replace(file, tooMuch, 0600);
        } catch (const fs::filesystem_error& error) {
            ::_exit(error.code() == std::errc::file_too_large ? 0 : 2);
        }
        ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(readFile(file), "old");
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(DurableFileTest, TellsWhatCannotBeSynced) {
    EXPECT_THROW(DurableFile::syncFile(folder / "missing"), fs::filesystem_error);
    EXPECT_THROW(DurableFile::syncDirectory(folder / "missing"), fs::filesystem_error);
    EXPECT_NO_THROW(DurableFile::syncDirectory(folder.path()));
    directorySyncError = EIO;
    EXPECT_THROW(DurableFile::syncDirectory(folder.path()), fs::filesystem_error);
}

TEST_F(DurableFileTest, ADirectoryThatCannotBeSyncedGetsTheOldFileBack) {
    const std::string old(200'000, 'o');
    writeFile(file, old);
    fs::permissions(file, static_cast<fs::perms>(0640));
    directorySyncError = EIO;
    EXPECT_THROW(DurableFile::replace(file, "new", 0600), fs::filesystem_error);
    EXPECT_TRUE(readFile(file) == old);
    EXPECT_EQ(modeOf(file), 0640U);
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(DurableFileTest, ADirectoryThatCannotBeSyncedKeepsNoNewFile) {
    directorySyncError = EIO;
    EXPECT_THROW(DurableFile::replace(file, "new", 0600), fs::filesystem_error);
    EXPECT_TRUE(names().empty());
}

TEST_F(DurableFileTest, ADirectoryWithoutNeedOfASyncIsSynced) {
    directorySyncError = EINVAL;
    EXPECT_NO_THROW(DurableFile::replace(file, "new", 0600));
    EXPECT_EQ(readFile(file), "new");
    EXPECT_NO_THROW(DurableFile::syncDirectory(folder.path()));
    EXPECT_NO_THROW(DurableFile::remove(file));
}

TEST_F(DurableFileTest, ADirectoryThatCannotBeOpenedKeepsTheOldFile) {
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        writeFile(file, "old");
        fs::permissions(folder.path(), fs::perms::owner_write | fs::perms::owner_exec);
        bool refused = false;
        try {
            DurableFile::replace(file, "new", 0600);
        } catch (const fs::filesystem_error& error) {
            refused = error.code() == std::errc::permission_denied;
        }
        fs::permissions(folder.path(), fs::perms::owner_all);
        return refused && readFile(file) == "old" && names() == std::vector<std::string>{"file"};
    }));
}

TEST_F(DurableFileTest, RemovesAFileAndIsContentWithoutOne) {
    writeFile(file, "");
    DurableFile::remove(file);
    EXPECT_TRUE(names().empty());
    EXPECT_NO_THROW(DurableFile::remove(file));
    directorySyncError = EIO;
    EXPECT_THROW(DurableFile::remove(file), fs::filesystem_error) << "it may come back";
    fs::create_directory(file);
    EXPECT_THROW(DurableFile::remove(file), fs::filesystem_error);
}

TEST_F(DurableFileTest, WhatAKilledProgramLeftIsRemoved) {
    writeFile(folder / abandonedName, "half a fi");
    DurableFile::removeAbandoned(folder.path());
    EXPECT_TRUE(names().empty());
    EXPECT_NO_THROW(DurableFile::removeAbandoned(folder / "missing"));
}

TEST_F(DurableFileTest, NothingElseIsTakenForAbandoned) {
    for (const char* name :
         {".quillvane-0123456789abcde.tmp", ".quillvane-0123456789abcdef0.tmp",
          ".quillvane-0123456789abcdeg.tmp", ".quillvane-0123456789ABCDEF.tmp",
          ".quillvane-0123456789abcdef.tmp~", "quillvane-0123456789abcdef.tmp", ".quillvane-.tmp"})
        writeFile(folder / name, "");
    fs::create_directory(folder / ".quillvane-000000000000000d.tmp");
    fs::create_symlink("file", folder / ".quillvane-000000000000000e.tmp");
    ASSERT_EQ(::mkfifo((folder / ".quillvane-000000000000000f.tmp").c_str(), 0600), 0);
    const auto before = names();
    DurableFile::removeAbandoned(folder.path());
    EXPECT_EQ(names(), before);
}

TEST_F(DurableFileTest, WhatAnotherUserIsWritingIsNotOurs) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a file away";
    writeFile(folder / abandonedName, "");
    ASSERT_EQ(::chown((folder / abandonedName).c_str(), nobody, nobody), 0);
    DurableFile::removeAbandoned(folder.path());
    EXPECT_EQ(names(), std::vector<std::string>{abandonedName});
}

TEST_F(DurableFileTest, WhatIsBeingWrittenIsNotTakenForAbandoned) {
    bool looked = false;
    beforeSync = [&] {
        looked = fs::exists(temporary());
        DurableFile::removeAbandoned(folder.path());
    };
    DurableFile::replace(file, "new", 0600);
    EXPECT_TRUE(looked);
    EXPECT_EQ(readFile(file), "new");
}

TEST_F(DurableFileTest, ATemporaryFileThatIsRemovedBeforeItsLockIsMadeAgain) {
    beforeLock = [&] { fs::remove(temporary()); };
    DurableFile::replace(file, "new", 0600);
    EXPECT_FALSE(beforeLock) << "there was no lock";
    EXPECT_EQ(readFile(file), "new");
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(DurableFileTest, ATemporaryFileThatAnotherLocksFirstIsLeftToIt) {
    FileDescriptor other;
    fs::path first;
    beforeLock = [&] {
        first = temporary();
        other.reset(::open(first.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(::flock(other.get(), LOCK_SH | LOCK_NB), 0);
    };
    DurableFile::replace(file, "new", 0600);
    EXPECT_FALSE(beforeLock) << "there was no lock";
    EXPECT_EQ(readFile(file), "new");
    fs::remove(first); // which the other one is about to do
    EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

} // namespace
