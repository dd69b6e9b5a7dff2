#include "Quillvane/Platform.h"

#include "MountTable.h"
#include "Quillvane/ProcessRunner.h"

#include <algorithm>
#include <exception>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <system_error>
#include <vector>

namespace Platform {
namespace {

namespace fs = std::filesystem;

/// None when the system does not tell.
std::vector<MountEntry> mounts() {
    try {
        return MountTable::current().entries();
    } catch (const std::system_error&) {
        return {};
    }
}

/// Takes a dead mount of our own tool out of the tree, as far as that works.
void cleanUp(const MountEntry& mount) {
    if (mount.type != MountTable::volumeType) return;
    if (::umount2(mount.mountPoint.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) return;
    try {
        ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", "--", mount.mountPoint.string()});
    } catch (const std::exception&) {
        return; // best effort: the mount stays dead and in nobody's way
    }
}

bool isLive(const MountEntry& mount) {
    if (!isDeadMount(mount.mountPoint)) return true;
    cleanUp(mount);
    return false;
}

/// The path as the system lists it: without links, but for the last component. A dead mount could
/// not be resolved, and a link that leads to a mount is none.
fs::path asListed(const fs::path& mountPoint) {
    const fs::path place = mountPoint.has_filename() ? mountPoint : mountPoint.parent_path();
    std::error_code unresolved;
    const fs::path parent = fs::canonical(place.parent_path(), unresolved);
    return unresolved ? place : parent / place.filename();
}

std::int64_t bytesOf(fsblkcnt_t blocks, const struct statvfs& volume) {
    std::int64_t bytes = 0;
    return __builtin_mul_overflow(blocks, volume.f_frsize, &bytes) ? 0 : bytes;
}

} // namespace

bool isMounted(const std::string& mountPoint) {
    const fs::path place = asListed(mountPoint);
    const auto all = mounts();
    const auto topmost = std::find_if(all.rbegin(), all.rend(), [&](const MountEntry& mount) {
        return mount.mountPoint.native() == place.native();
    });
    return topmost != all.rend() && isLive(*topmost);
}

std::optional<std::string> mountPointOfImage(const fs::path& imagePath) {
    std::error_code missing;
    const std::string image = fs::canonical(imagePath, missing).string();
    if (missing) return std::nullopt;
    const auto all = mounts();
    for (auto mount = all.rbegin(); mount != all.rend(); ++mount)
        if (mount->type == MountTable::volumeType && mount->source == image && isLive(*mount))
            return mount->mountPoint.string();
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
    return std::ranges::any_of(mounts(), [&](const MountEntry& mount) {
        const std::string& place = mount.mountPoint.native();
        return place == folder || place.starts_with(inside);
    });
}

} // namespace Platform
