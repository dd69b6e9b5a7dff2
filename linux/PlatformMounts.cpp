#include "Quillvane/Platform.h"

#include "MountList.h"

#include <algorithm>
#include <sys/statvfs.h>

namespace Platform {
namespace {

namespace fs = std::filesystem;

bool isLive(const MountList::Entry& entry) {
    if (!MountList::isDead(entry)) return true;
    MountList::cleanUp(entry);
    return false;
}

std::int64_t bytesOf(fsblkcnt_t blocks, const struct statvfs& volume) {
    std::int64_t bytes = 0;
    return __builtin_mul_overflow(blocks, volume.f_frsize, &bytes) ? 0 : bytes;
}

} // namespace

bool isMounted(const std::string& mountPoint) {
    const auto mounts = MountList::read();
    const auto topmost = std::find_if(mounts.rbegin(), mounts.rend(), [&](const auto& mount) {
        return mount.mountPoint == mountPoint;
    });
    return topmost != mounts.rend() && isLive(*topmost);
}

std::optional<std::string> mountPointOfImage(const fs::path& imagePath) {
    std::error_code missing;
    const std::string image = fs::canonical(imagePath, missing).string();
    if (missing) return std::nullopt;
    const auto mounts = MountList::read();
    for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount)
        if (mount->type == MountList::ownType && mount->source == image && isLive(*mount))
            return mount->mountPoint;
    return std::nullopt;
}

std::int64_t availableCapacity(const fs::path& path) {
    struct statvfs volume {};
    if (::statvfs(path.c_str(), &volume) != 0) return 0;
    return bytesOf(volume.f_bavail, volume);
}

std::int64_t volumeUsedBytes(const fs::path& path) {
    struct statvfs volume {};
    if (::statvfs(path.c_str(), &volume) != 0) return 0;
    return bytesOf(volume.f_blocks - volume.f_bfree, volume);
}

bool isPackageOrVolumeRoot(const fs::path& path) {
    const fs::path item = path.has_filename() ? path : path.parent_path();
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(item, error))) return fs::is_directory(item, error);
    const std::string folder = fs::canonical(item, error).string();
    if (error) return false;
    const std::string inside = folder.ends_with('/') ? folder : folder + "/";
    return std::ranges::any_of(MountList::read(), [&](const auto& mount) {
        return mount.mountPoint == folder || mount.mountPoint.starts_with(inside);
    });
}

} // namespace Platform
