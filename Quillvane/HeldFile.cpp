#include "HeldFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

HeldFile::HeldFile(const std::filesystem::path& file)
    // Without O_NONBLOCK, a FIFO of that name would hold us up.
    : fd_(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
    if (!fd_)
        throw std::filesystem::filesystem_error("cannot open", file,
                                                std::error_code(errno, std::generic_category()));
}

bool HeldFile::isAt(const std::filesystem::path& path) const noexcept {
    struct stat held {};
    struct stat found {};
    return fd_ && ::fstat(fd_.get(), &held) == 0 && ::stat(path.c_str(), &found) == 0 &&
           held.st_dev == found.st_dev && held.st_ino == found.st_ino;
}
