#include "FileLock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

FileLock::FileLock(const std::filesystem::path& file)
    : fd_(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (!fd_) return;
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0)
        state_ = State::held;
    else if (errno == EWOULDBLOCK)
        state_ = State::heldElsewhere;
}
