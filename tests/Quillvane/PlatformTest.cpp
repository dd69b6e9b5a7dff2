#include "Quillvane/Platform.h"
#include "Quillvane/FileDescriptor.h"
#include "Quillvane/VaultEngine.h"
#include "linux/VolumeName.h"
#include "tests/support/FuseMount.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

#define SKIP_UNLESS(mounted)                                                                       \
    if (!(mounted)) GTEST_SKIP() << "mounting is not permitted here"

/// The process cannot open anything as long as this lives.
class NoDescriptorsLeft {
public:
    NoDescriptorsLeft() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{0, before_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptorsLeft() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
    NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

private:
    rlimit before_{};
};

TEST(Platform, ToolsLieBesideTheProgram) {
    const fs::path program = fs::read_symlink("/proc/self/exe");
    const fs::path folder = program.parent_path().parent_path() / "libexec/quillvane";
    EXPECT_EQ(Platform::tools().hdiutil, folder / "hdiutil");
    EXPECT_EQ(Platform::tools().ditto, folder / "ditto");
    EXPECT_EQ(Platform::tools().open, folder / "open");
    EXPECT_TRUE(Platform::tools().dittoCompares);
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

ImageIdentity identityOf(const fs::path& file) {
    struct stat found {};
    EXPECT_EQ(::stat(file.c_str(), &found), 0) << file;
    return {found.st_dev, found.st_ino};
}

TEST(Platform, FindsTheMountOfAnImageThatWasRenamed) {
    const TemporaryFolder folder;
    const fs::path image = folder / "Docs.quillvane";
    const fs::path moved = folder / "Moved.quillvane";
    writeFile(image, "");
    fs::create_directory(folder / "volume");
    fs::create_directory(folder / "other volume");
    const FuseMount mount(folder / "volume", image, identityOf(image));
    SKIP_UNLESS(mount);
    EXPECT_EQ(Platform::mountPointOfImage(image), folder / "volume");
    fs::rename(image, moved);
    writeFile(image, "another");
    EXPECT_EQ(Platform::mountPointOfImage(moved), folder / "volume");
    EXPECT_FALSE(Platform::mountPointOfImage(image).has_value()) << "only the name is the same";
    const FuseMount other(folder / "other volume", moved, identityOf(image));
    EXPECT_EQ(Platform::mountPointOfImage(moved), folder / "volume");
    EXPECT_EQ(Platform::mountPointOfImage(image), folder / "other volume");
}

TEST(Platform, ADeadMountOfAnotherImageIsLeftAlone) {
    const TemporaryFolder folder;
    const fs::path image = folder / "Docs.quillvane";
    writeFile(image, "");
    fs::create_directory(folder / "dead");
    const DeadFuseMount dead(folder / "dead", folder / "Other.quillvane");
    SKIP_UNLESS(dead);
    EXPECT_FALSE(Platform::mountPointOfImage(image).has_value());
    EXPECT_TRUE(Platform::isListedAsMounted(folder / "dead"));
}

TEST(Platform, ReadsTheListOfMountsWithoutAskingTheVolumes) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "dead");
    fs::create_directory_symlink(folder.path(), folder / "link");
    EXPECT_FALSE(Platform::isListedAsMounted(folder / "dead"));
    const DeadFuseMount mount(folder / "dead", "none");
    SKIP_UNLESS(mount);
    EXPECT_TRUE(Platform::isListedAsMounted(folder / "dead"));
    EXPECT_TRUE(Platform::isListedAsMounted(folder / "link/dead/"));
    EXPECT_TRUE(VaultEngine::isListedAsMounted(folder / "dead")) << "it is still there";
    EXPECT_FALSE(Platform::isMounted(folder / "dead"));
    EXPECT_FALSE(VaultEngine::isListedAsMounted(folder / "dead"));
}

TEST(Platform, FailsWhenTheSystemDoesNotTellWhatIsMounted) {
    const TemporaryFolder folder;
    writeFile(folder / "Docs.quillvane", "");
    writeFile(folder / ".hidden", "Docs.quillvane\n");
    fs::create_directory(folder / "Docs");
    {
        const NoDescriptorsLeft none;
        EXPECT_THROW(Platform::isMounted("/"), std::system_error);
        EXPECT_THROW(Platform::isListedAsMounted("/"), std::system_error);
        EXPECT_THROW(VaultEngine::isMounted("/"), std::system_error);
        EXPECT_THROW(Platform::mountPointOfImage(folder / "Docs.quillvane"), std::system_error);
        EXPECT_THROW(Platform::isPackageOrVolumeRoot(folder / "Docs"), std::system_error);
        VaultEngine::recoverIfOrphaned(folder / "Docs.quillvane", (folder / "Docs").string());
    }
    EXPECT_TRUE(fs::exists(folder / "Docs")) << "a volume might be there";
    EXPECT_TRUE(Platform::isHidden(folder / "Docs.quillvane"));
    EXPECT_TRUE(Platform::isMounted("/"));
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

TEST(Platform, FindsTheLabelOfADevice) {
    const TemporaryFolder folder;
    const auto disk = [&](const char* name, mode_t type, dev_t device) {
        return ::mknod((folder / name).c_str(), type | 0600, device) == 0;
    };
    if (!disk("disk", S_IFBLK, makedev(8, 17)) || !disk("other", S_IFBLK, makedev(8, 18)) ||
        !disk("terminal", S_IFCHR, makedev(8, 19)))
        GTEST_SKIP() << "making device nodes is not permitted here";
    const fs::path labels = folder / "by-label";
    fs::create_directory(labels);
    fs::create_symlink("../disk", labels / "My\\x20Disk\\x2fé \\x5cx \\xzz\\x2");
    fs::create_symlink("../other", labels / "Backup");
    fs::create_symlink("../terminal", labels / "Terminal");
    fs::create_symlink("../missing", labels / "Missing");
    EXPECT_EQ(VolumeName::label(makedev(8, 17), labels), "My Disk/é \\x \\xzz\\x2");
    EXPECT_EQ(VolumeName::label(makedev(8, 18), labels), "Backup");
    EXPECT_FALSE(VolumeName::label(makedev(8, 19), labels).has_value());
    EXPECT_FALSE(VolumeName::label(makedev(8, 17), folder / "missing").has_value());
}

TEST(Platform, NamesVolumesByWhereTheyAreMounted) {
    const MountTable mounts("1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                            "2 1 8:2 / /mnt rw - ext4 /dev/sda2 rw\n"
                            "3 1 8:3 / /media/ada/My\\040Stick rw - vfat /dev/sdb1 rw\n"
                            "4 1 8:4 / /run/media/ada/Card rw - vfat /dev/sdc1 rw\n"
                            "5 1 8:5 / /mnt/backup rw - ext4 /dev/sdd1 rw\n"
                            "6 1 8:6 / /media/ada/My\\040Stick/deep rw - ext4 /dev/sde1 rw\n"
                            "7 1 0:7 / /home/ada/Volumes/Docs rw - fuse.quillvane /a.quillvane rw\n"
                            "8 1 0:8 / /home/ada/other rw - fuse.sshfs ada@host: rw\n");
    const auto name = [&](const char* path) {
        return VolumeName::mountedAs(mounts, path).value_or("none");
    };
    EXPECT_EQ(name("/media/ada/My Stick"), "My Stick");
    EXPECT_EQ(name("/media/ada/My Stick/Docs.quillvane"), "My Stick");
    EXPECT_EQ(name("/media/ada/My Stick/deep/a"), "deep");
    EXPECT_EQ(name("/media/ada/My Sticker"), "none");
    EXPECT_EQ(name("/run/media/ada/Card/a"), "Card");
    EXPECT_EQ(name("/mnt/backup/a"), "backup");
    EXPECT_EQ(name("/mnt/a"), "none");
    EXPECT_EQ(name("/home/ada/Volumes/Docs/a"), "Docs");
    EXPECT_EQ(name("/home/ada/other/a"), "none");
    EXPECT_EQ(name("/home/ada"), "none");
}

TEST(Platform, OfMountsOnOnePlaceTheNewestNamesIt) {
    const MountTable mounts("1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                            "2 1 0:7 / /home/ada/Docs rw - fuse.quillvane /a.quillvane rw\n"
                            "3 2 0:8 / /home/ada/Docs rw - tmpfs none rw\n");
    EXPECT_FALSE(VolumeName::mountedAs(mounts, "/home/ada/Docs/a").has_value());
}

TEST(Platform, NamesTheVolumeThatHoldsAPath) {
    const TemporaryFolder folder;
    writeFile(folder / "image", "");
    fs::create_directory(folder / "My Docs");
    fs::create_directory_symlink("My Docs", folder / "link");
    EXPECT_FALSE(Platform::volumeName(folder / "missing").has_value());
    const FuseMount mount(folder / "My Docs", folder / "image");
    SKIP_UNLESS(mount);
    EXPECT_EQ(Platform::volumeName(folder / "My Docs"), "My Docs");
    EXPECT_EQ(Platform::volumeName(folder / "link"), "My Docs");
}

TEST(Platform, SyncsFoldersAndTellsWhatCannotBe) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "copied");
    EXPECT_NO_THROW(Platform::syncCopiedFolder(folder / "copied"));
    EXPECT_THROW(Platform::syncCopiedFolder(folder / "missing"), std::system_error);
    EXPECT_THROW(Platform::fullSync(-1), std::system_error);
}

TEST(Platform, RenamesOverNothing) {
    const TemporaryFolder folder;
    writeFile(folder / "a", "a");
    writeFile(folder / "b", "b");
    fs::create_symlink("missing", folder / "link");
    for (const char* taken : {"b", "link"})
        EXPECT_THROW(Platform::renameWithoutReplacing(folder / "a", folder / taken),
                     fs::filesystem_error);
    EXPECT_EQ(readFile(folder / "b"), "b");
    Platform::renameWithoutReplacing(folder / "a", folder / "c");
    EXPECT_EQ(readFile(folder / "c"), "a");
    EXPECT_FALSE(fs::exists(folder / "a"));
    EXPECT_THROW(Platform::renameWithoutReplacing(folder / "a", folder / "d"),
                 fs::filesystem_error);
}

TEST(Platform, KnowsAnImageInUseByItsLock) {
    const TemporaryFolder folder;
    const fs::path image = folder / "image";
    EXPECT_FALSE(Platform::isImageInUse(image));
    writeFile(image, "image");
    fs::permissions(image, fs::perms::owner_read);
    EXPECT_FALSE(Platform::isImageInUse(image));
    fs::permissions(image, fs::perms::owner_all);
    FileDescriptor fd(::open(image.c_str(), O_RDWR | O_CLOEXEC));
    struct flock range {};
    range.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(fd.get(), F_OFD_SETLK, &range), 0);
    EXPECT_TRUE(Platform::isImageInUse(image));
    fd.reset();
    EXPECT_FALSE(Platform::isImageInUse(image));
}

} // namespace
