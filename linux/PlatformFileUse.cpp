#include "Quillvane/Platform.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>

namespace Platform {

timespec modificationTime(const struct stat& status) noexcept {
    return status.st_mtim;
}

timespec changeTime(const struct stat& status) noexcept {
    return status.st_ctim;
}

bool reserveImage(int image) noexcept {
    // The volume's server holds a lock for writing on all of its image.
    struct flock range {};
    range.l_type = F_RDLCK;
    range.l_whence = SEEK_SET;
    return ::fcntl(image, F_OFD_SETLK, &range) == 0 || (errno != EAGAIN && errno != EACCES);
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
    if (::fcntl(file, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
    ::fcntl(file, F_SETLEASE, F_UNLCK);
    return false;
}

} // namespace Platform
