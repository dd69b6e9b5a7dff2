#include "Quillvane/Platform.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace Platform {
namespace {

/// True for network drives, whose servers refuse leases for reasons of their own.
bool isRemote(int fd) noexcept {
    struct statfs found {};
    if (::fstatfs(fd, &found) != 0) return true;
    switch (static_cast<std::uint32_t>(found.f_type)) {
    case NFS_SUPER_MAGIC:
    case SMB_SUPER_MAGIC:
    case SMB2_SUPER_MAGIC:
    case CIFS_SUPER_MAGIC:
        return true;
    default:
        return false;
    }
}

/// Others have times of their own making, like that of the mount for the root of an exFAT disk, or
/// another one once the directory has been written to.
bool keepsBirthTimes(const std::filesystem::path& path) noexcept {
    struct statfs found {};
    if (::statfs(path.c_str(), &found) != 0) return false;
    switch (static_cast<std::uint32_t>(found.f_type)) {
    case EXT4_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
        return true;
    default:
        return false;
    }
}

} // namespace

timespec modificationTime(const struct stat& status) noexcept {
    return status.st_mtim;
}

timespec changeTime(const struct stat& status) noexcept {
    return status.st_ctim;
}

std::int64_t birthTime(const std::filesystem::path& path) noexcept {
    struct statx status {};
    if (!keepsBirthTimes(path) ||
        ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &status) != 0 ||
        (status.stx_mask & STATX_BTIME) == 0)
        return 0;
    constexpr std::int64_t second = 1'000'000'000;
    return status.stx_btime.tv_sec * second + status.stx_btime.tv_nsec;
}

bool reserveImage(int image) noexcept {
    // The volume's server holds a lock for writing on all of its image.
    struct flock range {};
    range.l_type = F_RDLCK;
    range.l_whence = SEEK_SET;
    return ::fcntl(image, F_OFD_SETLK, &range) == 0 || (errno != EAGAIN && errno != EACCES);
}

bool isLocal(int fd) noexcept {
    struct statfs found {};
    return ::fstatfs(fd, &found) == 0 && found.f_type != FUSE_SUPER_MAGIC && !isRemote(fd);
}

bool isMountRoot(int directory) noexcept {
    struct statx status {};
    return ::statx(directory, "", AT_EMPTY_PATH, 0, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

WriterCheck::WriterCheck() = default;

bool WriterCheck::isOpenForWriting(int file) const {
    // A read lease is refused while there is a writer. Whoever opens the file in the moment that we
    // hold one waits that long, and we get a signal: one that is ignored by default.
    if (::fcntl(file, F_SETSIG, SIGURG) != 0) return false;
    if (::fcntl(file, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN && !isRemote(file);
    ::fcntl(file, F_SETLEASE, F_UNLCK);
    return false;
}

} // namespace Platform
