#include "Quillvane/Platform.h"

#include "Quillvane/FileDescriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Platform {
namespace {

namespace fs = std::filesystem;

std::error_code lastError() {
    return {errno, std::generic_category()};
}

} // namespace

std::error_code setHidden(const fs::path& path, bool hidden) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return lastError();
    const unsigned int flags =
        hidden ? status.st_flags | UF_HIDDEN : status.st_flags & ~static_cast<unsigned>(UF_HIDDEN);
    if (flags != status.st_flags && ::lchflags(path.c_str(), flags) != 0) return lastError();
    return {};
}

bool isHidden(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && (status.st_flags & UF_HIDDEN) != 0;
}

void fullSync(int fd) {
    if (::fcntl(fd, F_FULLFSYNC) == 0) return;
    // Not every file system knows the full flush through the drive's cache. Any other failure is
    // one of the disk, which a second attempt might not tell.
    if (errno != ENOTSUP && errno != EINVAL && errno != ENOTTY && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "F_FULLFSYNC");
    while (::fsync(fd) != 0)
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "fsync");
}

void syncCopiedFolder(const fs::path& folder) {
    // The copy tool leaves its files in the cache: flush the whole volume.
    if (::sync_volume_np(folder.c_str(), SYNC_VOLUME_FULLSYNC | SYNC_VOLUME_WAIT) != 0)
        throw std::system_error(errno, std::generic_category(), "sync_volume_np");
}

void renameWithoutReplacing(const fs::path& from, const fs::path& to) {
    if (::renamex_np(from.c_str(), to.c_str(), RENAME_EXCL) == 0) return;
    std::error_code error = lastError();
    const bool unknown = error.value() == ENOTSUP || error.value() == EINVAL;
    struct stat status {};
    if (unknown && ::lstat(to.c_str(), &status) != 0)
        fs::rename(from, to, error);
    else if (unknown)
        error.assign(EEXIST, std::generic_category());
    if (error) throw fs::filesystem_error("cannot rename", from, to, error);
}

bool isImageInUse(const fs::path& imagePath) {
    // The disk-image tool holds an attached image by such a lock.
    const FileDescriptor fd(
        ::open(imagePath.c_str(), O_RDONLY | O_EXLOCK | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return !fd && errno != ENOENT;
}

} // namespace Platform
