#include "Quillvane/TreeRemoval.h"
#include "Quillvane/VaultEngine.h"
#include "tests/support/FuseMount.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr const char* levelName = "ten letters";

/// `depth` folders in each other; with names this long, deeper than any path can be written.
void nest(const fs::path& root, int depth) {
    int current = ::open(root.c_str(), O_RDONLY | O_DIRECTORY);
    for (int level = 0; level < depth; ++level) {
        ASSERT_EQ(::mkdirat(current, levelName, 0755), 0) << level;
        const int file = ::openat(current, "file", O_WRONLY | O_CREAT, 0600);
        ASSERT_EQ(::write(file, "12345", 5), 5);
        ::close(file);
        const int next = ::openat(current, levelName, O_RDONLY | O_DIRECTORY);
        ::close(current);
        current = next;
    }
    ::close(current);
}

TEST(TreeRemoval, RemovesEverything) {
    const TemporaryFolder folder;
    const fs::path tree = folder / "tree";
    fs::create_directories(tree / "a/b");
    fs::create_directories(tree / "empty");
    writeFile(tree / "a/b/file", "x");
    writeFile(tree / "\xff\n odd", "x");
    ASSERT_EQ(::mkfifo((tree / "fifo").c_str(), 0600), 0);
    TreeRemoval::remove(tree);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(TreeRemoval, RemovesSingleFilesAndLinks) {
    const TemporaryFolder folder;
    writeFile(folder / "file", "x");
    fs::create_directory_symlink(folder / "kept", folder / "link");
    fs::create_directory(folder / "kept");
    writeFile(folder / "kept/file", "x");
    TreeRemoval::remove(folder / "file");
    TreeRemoval::remove(folder / "link");
    EXPECT_TRUE(fs::exists(folder / "kept/file"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder / "link")));
}

TEST(TreeRemoval, FollowsNoLinks) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "outside");
    writeFile(folder / "outside/file", "x");
    fs::create_directory(folder / "tree");
    fs::create_directory_symlink(folder / "outside", folder / "tree/link");
    fs::create_directory_symlink("..", folder / "tree/up");
    fs::create_symlink("missing", folder / "tree/dangling");
    TreeRemoval::remove(folder / "tree");
    EXPECT_EQ(readFile(folder / "outside/file"), "x");
    EXPECT_FALSE(fs::exists(folder / "tree"));
}

TEST(TreeRemoval, GoesToAnyDepthWithFewDescriptors) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "tree");
    nest(folder / "tree", 1000);
    EXPECT_EQ(VaultEngine::tallies(folder / "tree").count, 1000);
    EXPECT_EQ(VaultEngine::tallies(folder / "tree").bytes, 5000);

    rlimit former{};
    ::getrlimit(RLIMIT_NOFILE, &former);
    const rlimit few{32, former.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_NO_THROW(TreeRemoval::remove(folder / "tree"));
    ::setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(TreeRemoval, EmptiesReadOnlyFoldersOfTheUser) {
    const TemporaryFolder folder;
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        const fs::path tree = folder / "tree";
        fs::create_directories(tree / "a/b");
        writeFile(tree / "a/b/file", "x");
        for (const auto& [name, mode] : {std::pair{"a/b", 0555}, {"a", 0000}, {"", 0100}})
            fs::permissions(tree / name, static_cast<fs::perms>(mode));
        TreeRemoval::remove(tree);
        return fs::is_empty(folder.path());
    }));
}

TEST(TreeRemoval, TellsThePathThatCouldNotBeRemoved) {
    const TemporaryFolder folder;
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        fs::create_directory(folder / "tree");
        fs::permissions(folder.path(), fs::perms::owner_read | fs::perms::owner_exec);
        try {
            TreeRemoval::remove(folder / "tree");
        } catch (const fs::filesystem_error& error) {
            fs::permissions(folder.path(), fs::perms::owner_all);
            return error.path1() == folder / "tree" && error.code() == std::errc::permission_denied;
        }
        return false;
    }));
}

TEST(TreeRemoval, TellsWhatIsNotThere) {
    const TemporaryFolder folder;
    try {
        TreeRemoval::remove(folder / "missing");
        FAIL() << "removed";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.path1(), folder / "missing");
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
}

TEST(TreeRemoval, StaysOnItsFileSystem) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "tree/a/mount");
    const Mounted mounted(folder / "tree/a/mount", "tmpfs", "none", "");
    if (!mounted) GTEST_SKIP() << "mounting is not permitted here";
    writeFile(folder / "tree/a/mount/file", "x");
    try {
        TreeRemoval::remove(folder / "tree");
        ADD_FAILURE() << "removed";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.path1(), folder / "tree/a/mount");
        EXPECT_EQ(error.code(), std::errc::cross_device_link);
    }
    EXPECT_EQ(readFile(folder / "tree/a/mount/file"), "x");
}

} // namespace
