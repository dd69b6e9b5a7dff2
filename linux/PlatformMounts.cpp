#include "Quillvane/Platform.h"

#include "MountTable.h"
#include "Quillvane/FileDescriptor.h"
#include "Quillvane/ProcessRunner.h"
#include "linux/hdiutil/ControlProtocol.h"

#include <algorithm>
#include <exception>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <vector>

namespace Platform {
namespace {

namespace fs = std::filesystem;

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
    if (!isDeadMount(mount)) return true;
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

std::optional<MountEntry> topmostAt(const std::string& mountPoint) {
    const MountTable table = MountTable::current();
    // The path as it is first: to resolve it asks the volumes above it, if there are any.
    const auto found = table.at(mountPoint);
    return found ? found : table.at(asListed(mountPoint));
}

/// Which file the user's own volume is in, as its server tells; none when it does not answer.
std::optional<ImageIdentity> imageOf(const MountEntry& volume) {
    const FileDescriptor root(
        ::open(volume.mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ImageIdentity image{};
    if (!root || ::ioctl(root.get(), imageIdentityRequest, &image) != 0) return std::nullopt;
    return image;
}

/// The list of mounts has the name that the image had when it was attached. It decides only where
/// the server does not: images may be renamed, and others take their names.
bool isVolumeOf(const MountEntry& mount, const std::string& path, const ImageIdentity& image) {
    if (const auto found = imageOf(mount)) return *found == image;
    return mount.source == path && isLive(mount);
}

std::int64_t bytesOf(fsblkcnt_t blocks, const struct statvfs& volume) {
    std::int64_t bytes = 0;
    return __builtin_mul_overflow(blocks, volume.f_frsize, &bytes) ? 0 : bytes;
}

} // namespace

bool isMounted(const std::string& mountPoint) {
    const auto mount = topmostAt(mountPoint);
    return mount && isLive(*mount);
}

bool isListedAsMounted(const std::string& mountPoint) {
    return topmostAt(mountPoint).has_value();
}

std::optional<std::string> mountPointOfImage(const fs::path& imagePath) {
    std::error_code missing;
    const std::string path = fs::canonical(imagePath, missing).string();
    struct stat status {};
    if (missing || ::stat(path.c_str(), &status) != 0) return std::nullopt;
    const ImageIdentity image{status.st_dev, status.st_ino};
    auto volumes = MountTable::current().entries();
    std::erase_if(volumes, [](const MountEntry& mount) {
        return mount.type != MountTable::volumeType || !mount.isOwn();
    });
    std::ranges::reverse(volumes);
    // Those that have the name come first: as a rule it is one of them, and the others, of which
    // one may not answer, are not asked.
    std::stable_partition(volumes.begin(), volumes.end(),
                          [&](const MountEntry& mount) { return mount.source == path; });
    const auto found = std::ranges::find_if(
        volumes, [&](const MountEntry& mount) { return isVolumeOf(mount, path, image); });
    return found != volumes.end() ? std::optional(found->mountPoint.string()) : std::nullopt;
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

bool keepsFilesOnVolumes() noexcept {
    return false;
}

bool isPackageOrVolumeRoot(const fs::path& path) {
    const fs::path item = path.has_filename() ? path : path.parent_path();
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(item, error))) return fs::is_directory(item, error);
    const std::string folder = fs::canonical(item, error).string();
    if (error) return false;
    const std::string inside = folder.ends_with('/') ? folder : folder + "/";
    return std::ranges::any_of(MountTable::current().entries(), [&](const MountEntry& mount) {
        const std::string& place = mount.mountPoint.native();
        return place == folder || place.starts_with(inside);
    });
}

} // namespace Platform
