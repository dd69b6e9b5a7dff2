#include "Quillvane/Platform.h"

#include "HiddenList.h"

#include "Quillvane/DurableFile.h"

#include <cerrno>
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

} // namespace Platform
