#include "Quillvane/Platform.h"

#include "HiddenList.h"

#include "Quillvane/DurableFile.h"
#include "Quillvane/FileDescriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace Platform {

std::error_code setHidden(const std::filesystem::path& path, bool hidden) {
    try {
        HiddenList::set(path, hidden);
        return {};
    } catch (const std::system_error& error) {
        return error.code();
    }
}

bool isHidden(const std::filesystem::path& path) {
    return HiddenList::contains(path);
}

void fullSync(int fd) {
    while (::fsync(fd) != 0)
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "fsync");
}

void syncCopiedFolder(const std::filesystem::path& folder) {
    // The copy tool has synced what it made; the folder's entry in its parent it has not.
    DurableFile::syncDirectory(folder);
    DurableFile::syncDirectory(folder.parent_path());
}

void renameWithoutReplacing(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
    std::error_code error(errno, std::generic_category());
    const bool unknown = error.value() == EINVAL || error.value() == ENOSYS;
    if (unknown && ::faccessat(AT_FDCWD, to.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0)
        std::filesystem::rename(from, to, error);
    else if (unknown)
        error.assign(EEXIST, std::generic_category());
    if (error) throw std::filesystem::filesystem_error("cannot rename", from, to, error);
}

bool isImageInUse(const std::filesystem::path& imagePath) {
    const FileDescriptor fd(
        ::open(imagePath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) return errno != ENOENT;
    // The lock of whoever makes or serves the volume; see the disk-image tool.
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return ::fcntl(fd.get(), F_OFD_GETLK, &range) != 0 || range.l_type != F_UNLCK;
}

} // namespace Platform
