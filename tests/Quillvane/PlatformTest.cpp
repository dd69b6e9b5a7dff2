#include "Quillvane/Platform.h"
#include "Quillvane/VaultEngine.h"
#include "tests/support/FuseMount.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

#define SKIP_UNLESS(mounted)                                                                       \
    if (!(mounted)) GTEST_SKIP() << "mounting is not permitted here"

TEST(Platform, ToolsLieBesideTheProgram) {
    const fs::path program = fs::read_symlink("/proc/self/exe");
    const fs::path folder = program.parent_path().parent_path() / "libexec/quillvane";
    EXPECT_EQ(Platform::tools().hdiutil, folder / "hdiutil");
    EXPECT_EQ(Platform::tools().ditto, folder / "ditto");
    EXPECT_EQ(Platform::tools().open, folder / "open");
}

TEST(Platform, KnowsMountPointsExactly) {
    const TemporaryFolder folder;
    const fs::path photos = folder / "Photos 1\té";
    fs::create_directory(photos);
    fs::create_directory(folder / "Photos");
    EXPECT_FALSE(Platform::isMounted(photos));
    const Mounted mounted(photos, "tmpfs", "none", "");
    SKIP_UNLESS(mounted);
    EXPECT_TRUE(VaultEngine::isMounted(photos));
    EXPECT_FALSE(VaultEngine::isMounted(folder / "Photos"));
    EXPECT_FALSE(VaultEngine::isMounted(folder.path()));
}

TEST(Platform, AMountWithoutAServerDoesNotCountAndGoes) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "dead");
    const DeadFuseMount mount(folder / "dead", "none");
    SKIP_UNLESS(mount);
    struct stat status {};
    ASSERT_NE(::stat((folder / "dead").c_str(), &status), 0);
    EXPECT_FALSE(Platform::isMounted(folder / "dead"));
    EXPECT_EQ(::stat((folder / "dead").c_str(), &status), 0) << "it should be cleaned up";
}

TEST(Platform, FindsAMountThroughLinksInItsParentsPath) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "real/deep/Docs");
    fs::create_directory_symlink("real", folder / "link");
    fs::create_directory_symlink(folder / "real/deep/Docs", folder / "itself");
    const Mounted mounted(folder / "real/deep/Docs", "tmpfs", "none", "");
    SKIP_UNLESS(mounted);
    EXPECT_TRUE(Platform::isMounted(folder / "link/deep/Docs"));
    EXPECT_TRUE(Platform::isMounted(folder / "link/deep/Docs/"));
    EXPECT_TRUE(Platform::isMounted(folder / "real/../link/./deep/Docs"));
    EXPECT_FALSE(Platform::isMounted(folder / "itself")) << "the link is no mount";
    EXPECT_FALSE(Platform::isMounted(folder / "link/deep"));
    EXPECT_FALSE(Platform::isMounted(folder / "missing/Docs"));
    EXPECT_TRUE(Platform::isMounted("/"));
}

TEST(Platform, CleansDeadMountsUpWhateverTheirPath) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "real");
    fs::create_directory_symlink("real", folder / "link");
    for (const char* name :
         {"with space", "line\nfeed", "tab\tand \\040", "Ünï – 写真", " ", "\xff"}) {
        fs::create_directory(folder / "real" / name);
        const DeadFuseMount mount(folder / "real" / name, "none");
        SKIP_UNLESS(mount);
        EXPECT_FALSE(Platform::isMounted(folder / "link" / name));
        std::error_code error;
        EXPECT_TRUE(fs::is_empty(folder / "real" / name, error)) << name;
        EXPECT_FALSE(error) << name << ": " << error.message();
        EXPECT_TRUE(fs::remove(folder / "real" / name, error)) << name << " is still mounted";
    }
}

TEST(Platform, FindsTheMountOfAnImage) {
    const TemporaryFolder folder;
    const fs::path image = folder / "My Docs.quillvane";
    writeFile(image, "");
    fs::create_symlink(image, folder / "link");
    fs::create_directory(folder / "volume");
    fs::create_directory(folder / "newer volume");
    EXPECT_FALSE(Platform::mountPointOfImage(image).has_value());
    EXPECT_FALSE(Platform::mountPointOfImage(folder / "missing").has_value());
    {
        const FuseMount mount(folder / "volume", image);
        SKIP_UNLESS(mount);
        EXPECT_EQ(Platform::mountPointOfImage(image), folder / "volume");
        EXPECT_EQ(Platform::mountPointOfImage(folder / "link"), folder / "volume");
        EXPECT_TRUE(Platform::isMounted(folder / "volume"));
        const FuseMount newer(folder / "newer volume", image);
        EXPECT_EQ(Platform::mountPointOfImage(image), folder / "newer volume");
    }
    EXPECT_FALSE(Platform::mountPointOfImage(image).has_value());
    const DeadFuseMount dead(folder / "volume", image);
    EXPECT_FALSE(Platform::mountPointOfImage(image).has_value()) << "a dead mount is none";
}

TEST(Platform, TellsFoldersFromWhatOnlyLooksLikeOne) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "plain/inner");
    writeFile(folder / "file", "");
    fs::create_directory_symlink("plain", folder / "link");
    fs::create_symlink("missing", folder / "dangling");
    fs::create_symlink("file", folder / "fileLink");
    EXPECT_FALSE(Platform::isPackageOrVolumeRoot(folder / "plain"));
    EXPECT_FALSE(Platform::isPackageOrVolumeRoot(folder / "plain/"));
    EXPECT_FALSE(Platform::isPackageOrVolumeRoot(folder / "missing"));
    EXPECT_FALSE(Platform::isPackageOrVolumeRoot(folder / "dangling"));
    EXPECT_FALSE(Platform::isPackageOrVolumeRoot(folder / "fileLink"));
    EXPECT_TRUE(Platform::isPackageOrVolumeRoot(folder / "link"));
    EXPECT_TRUE(Platform::isPackageOrVolumeRoot(folder / "link/"));
    EXPECT_TRUE(Platform::isPackageOrVolumeRoot("/"));
    EXPECT_TRUE(Platform::isPackageOrVolumeRoot("/proc"));
}

TEST(Platform, AFolderWithAMountInsideIsNoPlainFolder) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "Docs/inner/mount");
    fs::create_directories(folder / "Doc");
    const Mounted mounted(folder / "Docs/inner/mount", "tmpfs", "none", "");
    SKIP_UNLESS(mounted);
    EXPECT_TRUE(Platform::isPackageOrVolumeRoot(folder / "Docs"));
    EXPECT_TRUE(Platform::isPackageOrVolumeRoot(folder / "Docs/inner/mount"));
    EXPECT_FALSE(Platform::isPackageOrVolumeRoot(folder / "Doc"));
}

TEST(Platform, MeasuresVolumes) {
    const TemporaryFolder folder;
    struct statvfs volume {};
    ASSERT_EQ(::statvfs(folder.path().c_str(), &volume), 0);
    EXPECT_GT(VaultEngine::availableCapacity(folder.path()), 0);
    EXPECT_GT(VaultEngine::usedBytes(folder.path()), 0);
    EXPECT_LE(VaultEngine::usedBytes(folder.path()),
              static_cast<std::int64_t>(volume.f_blocks * volume.f_frsize));
    EXPECT_EQ(VaultEngine::availableCapacity(folder / "missing"), 0);
    EXPECT_EQ(VaultEngine::usedBytes(folder / "missing"), 0);
}

TEST(Platform, SyncsFoldersAndTellsWhatCannotBe) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "copied");
    EXPECT_NO_THROW(Platform::syncCopiedFolder(folder / "copied"));
    EXPECT_THROW(Platform::syncCopiedFolder(folder / "missing"), std::system_error);
    EXPECT_THROW(Platform::fullSync(-1), std::system_error);
}

} // namespace
