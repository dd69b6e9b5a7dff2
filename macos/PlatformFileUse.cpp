#include "Quillvane/Platform.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <libproc.h>
#include <string_view>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/proc_info.h>
#include <sys/stat.h>
#include <system_error>

namespace Platform {
namespace {

std::vector<pid_t> processes() {
    const int bytes = ::proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0);
    if (bytes <= 0) throw std::system_error(errno, std::generic_category(), "proc_listpids");
    std::vector<pid_t> found(static_cast<std::size_t>(bytes) / sizeof(pid_t) + 64);
    const int read = ::proc_listpids(PROC_ALL_PIDS, 0, found.data(),
                                     static_cast<int>(found.size() * sizeof(pid_t)));
    if (read <= 0) throw std::system_error(errno, std::generic_category(), "proc_listpids");
    found.resize(static_cast<std::size_t>(read) / sizeof(pid_t));
    return found;
}

/// None for another user's process, or one that has just ended.
std::vector<proc_fdinfo> descriptorsOf(pid_t process) {
    const int bytes = ::proc_pidinfo(process, PROC_PIDLISTFDS, 0, nullptr, 0);
    if (bytes <= 0) return {};
    std::vector<proc_fdinfo> found(static_cast<std::size_t>(bytes) / sizeof(proc_fdinfo) + 16);
    const int read = ::proc_pidinfo(process, PROC_PIDLISTFDS, 0, found.data(),
                                    static_cast<int>(found.size() * sizeof(proc_fdinfo)));
    found.resize(static_cast<std::size_t>(std::max(read, 0)) / sizeof(proc_fdinfo));
    return found;
}

} // namespace

timespec modificationTime(const struct stat& status) noexcept {
    return status.st_mtimespec;
}

timespec changeTime(const struct stat& status) noexcept {
    return status.st_ctimespec;
}

std::int64_t birthTime(const std::filesystem::path& path) noexcept {
    struct stat status {};
    struct statfs found {};
    if (::lstat(path.c_str(), &status) != 0 || ::statfs(path.c_str(), &found) != 0) return 0;
    // Elsewhere another time of the file may stand in for it.
    const std::string_view type = found.f_fstypename;
    if (type != "apfs" && type != "hfs") return 0;
    constexpr std::int64_t second = 1'000'000'000;
    return status.st_birthtimespec.tv_sec * second + status.st_birthtimespec.tv_nsec;
}

bool reserveImage(int image) noexcept {
    return ::flock(image, LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

bool isLocal(int fd) noexcept {
    struct statfs found {};
    return ::fstatfs(fd, &found) == 0 && (found.f_flags & MNT_LOCAL) != 0;
}

bool isMountRoot(int) noexcept {
    return false; // every mount has a device number of its own
}

WriterCheck::WriterCheck() {
    for (const pid_t process : processes()) {
        for (const proc_fdinfo& descriptor : descriptorsOf(process)) {
            vnode_fdinfo info{};
            if (descriptor.proc_fdtype != PROX_FDTYPE_VNODE ||
                ::proc_pidfdinfo(process, descriptor.proc_fd, PROC_PIDFDVNODEINFO, &info,
                                 sizeof info) != static_cast<int>(sizeof info) ||
                (info.pfi.fi_openflags & FWRITE) == 0)
                continue;
            openForWriting_.push_back({static_cast<dev_t>(info.pvi.vi_stat.vst_dev),
                                       static_cast<ino_t>(info.pvi.vi_stat.vst_ino)});
        }
    }
    std::ranges::sort(openForWriting_);
}

bool WriterCheck::isOpenForWriting(int file) const {
    struct stat status {};
    return ::fstat(file, &status) == 0 &&
           std::ranges::binary_search(openForWriting_, FileIdentity{status.st_dev, status.st_ino});
}

} // namespace Platform
