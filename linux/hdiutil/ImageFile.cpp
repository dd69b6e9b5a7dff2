#include "ImageFile.h"

#include "Quillvane/DurableFile.h"
#include "ToolError.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

namespace {

using Path = std::filesystem::path;

// Two users of one image would destroy it. The lock belongs to the open file, so it passes to the
// volume's server with the descriptor, and ends with the last process that holds it, however that
// process ends. flock(2) is left to libcryptsetup, which takes it on the same file.
//
// A server that was killed holds its lock until the kernel has taken it down, a moment after its
// mount is seen to be dead: that moment is waited for.
void lock(int fd, bool readOnly) {
    constexpr std::chrono::milliseconds pause{20};
    constexpr int mostPauses = 50;
    struct flock range {};
    range.l_type = readOnly ? F_RDLCK : F_WRLCK;
    range.l_whence = SEEK_SET;
    for (int i = 0; ::fcntl(fd, F_OFD_SETLK, &range) != 0; ++i) {
        const int reason = errno == EACCES ? EAGAIN : errno;
        if (reason != EAGAIN || i == mostPauses) throw ToolError::fromErrno(reason);
        std::this_thread::sleep_for(pause);
    }
}

ImageIdentity identityOfRegularFile(int fd) {
    struct stat found {};
    if (::fstat(fd, &found) != 0) throw ToolError::fromErrno(errno);
    if (!S_ISREG(found.st_mode)) throw ImageNotSupported("not a regular file");
    return {found.st_dev, found.st_ino};
}

Path parentOf(const Path& path) {
    return path.has_parent_path() ? path.parent_path() : Path(".");
}

} // namespace

ImageFile openImage(const Path& path) {
    std::error_code error;
    ImageFile result;
    result.path = std::filesystem::canonical(path, error);
    if (error) throw ToolError::fromErrno(error.value());
    // Without O_NONBLOCK, a FIFO of that name would hold us up.
    constexpr int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    result.fd = FileDescriptor(::open(result.path.c_str(), O_RDWR | flags));
    if (!result.fd && (errno == EACCES || errno == EROFS || errno == EPERM)) {
        result.readOnly = true;
        result.fd = FileDescriptor(::open(result.path.c_str(), O_RDONLY | flags));
    }
    if (!result.fd) throw ToolError::fromErrno(errno);
    result.identity = identityOfRegularFile(result.fd.get());
    lock(result.fd.get(), result.readOnly);
    return result;
}

bool isDeleted(int image) noexcept {
    struct stat found {};
    return ::fstat(image, &found) == 0 && found.st_nlink == 0;
}

NewImageFile::NewImageFile(const Path& path)
    : path_(path),
      fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (!fd_) throw ToolError::fromErrno(errno);
    lock(fd_.get(), false);
}

NewImageFile::~NewImageFile() {
    if (kept_) return;
    struct stat own {};
    struct stat named {};
    // Someone may have put another file in its place meanwhile.
    if (::fstat(fd_.get(), &own) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
        own.st_dev == named.st_dev && own.st_ino == named.st_ino)
        ::unlink(path_.c_str());
}

void NewImageFile::keep() {
    DurableFile::syncDirectory(parentOf(path_));
    kept_ = true;
}
