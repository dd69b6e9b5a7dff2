#include "Quillvane/Platform.h"

#include "Package.h"
#include "Quillvane/ProcessRunner.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <plist/plist.h>
#include <sys/mount.h>
#include <system_error>
#include <vector>

namespace Platform {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> text(plist_t dictionary, const char* key) {
    const plist_t node = plist_dict_get_item(dictionary, key);
    if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    std::uint64_t length = 0;
    const char* characters = plist_get_string_ptr(node, &length);
    return std::string(characters, length);
}

/// The last mount point among an image's "system-entities".
std::optional<std::string> mountPoint(plist_t image) {
    std::optional<std::string> found;
    const plist_t entities = plist_dict_get_item(image, "system-entities");
    for (std::uint32_t i = 0; i < plist_array_get_size(entities); ++i)
        if (auto mounted = text(plist_array_get_item(entities, i), "mount-point")) found = mounted;
    return found;
}

/// The path as the system lists it: without links, but for the last component. A dead mount could
/// not be resolved, and a link that leads to a mount is none.
fs::path asListed(const fs::path& mountPoint) {
    const fs::path place = mountPoint.has_filename() ? mountPoint : mountPoint.parent_path();
    std::error_code unresolved;
    const fs::path parent = fs::canonical(place.parent_path(), unresolved);
    return unresolved ? place : parent / place.filename();
}

/// What the tool prints. Throws `std::system_error`.
ProcessResult listing(const fs::path& tool, const std::vector<std::string>& arguments) {
    try {
        ProcessResult result = ProcessRunner::run(tool, arguments);
        if (result.exitCode == 0) return result;
        throw std::system_error(EIO, std::generic_category(), result.stderrString());
    } catch (const ProcessLaunchError& error) {
        throw std::system_error(EAGAIN, std::generic_category(), error.what());
    }
}

/// Where the volume of the last image is mounted whose path, as it was when the image was attached,
/// fulfils the condition. Throws `std::system_error`.
std::optional<std::string>
mountPointOf(const std::function<bool(const std::string& imagePath)>& isWanted) {
    const ProcessResult info = listing(tools().hdiutil, {"info", "-plist"});
    plist_t parsed = nullptr;
    plist_from_xml(info.standardOutput.data(),
                   static_cast<std::uint32_t>(info.standardOutput.size()), &parsed);
    const std::unique_ptr<void, void (*)(plist_t)> list(parsed, plist_free);
    if (!list) throw std::system_error(EIO, std::generic_category(), "hdiutil info");
    std::optional<std::string> found;
    const plist_t images = plist_dict_get_item(list.get(), "images");
    for (std::uint32_t i = 0; i < plist_array_get_size(images); ++i) {
        const plist_t image = plist_array_get_item(images, i);
        const auto path = text(image, "image-path");
        if (path && isWanted(*path)) found = mountPoint(image);
    }
    return found;
}

/// True when a volume is mounted at `folder`, a canonical path, or below it.
bool holdsMount(const std::string& folder) {
    const int count = ::getfsstat(nullptr, 0, MNT_NOWAIT);
    std::vector<struct statfs> mounts(static_cast<std::size_t>(std::max(count, 0)) + 8);
    const int read = ::getfsstat(
        mounts.data(), static_cast<int>(mounts.size() * sizeof mounts.front()), MNT_NOWAIT);
    if (read < 0) throw std::system_error(errno, std::generic_category(), "getfsstat");
    mounts.resize(static_cast<std::size_t>(read));
    const std::string inside = folder.ends_with('/') ? folder : folder + "/";
    return std::ranges::any_of(mounts, [&](const struct statfs& mount) {
        const std::string place = mount.f_mntonname;
        return place == folder || place.starts_with(inside);
    });
}

} // namespace

// The tool prints the kernel's list, and asks no volume.
bool isListedAsMounted(const std::string& mountPoint) {
    const std::string listed = " on " + asListed(mountPoint).string() + " (";
    return listing(tools().mount, {}).stdoutString().find(listed) != std::string::npos;
}

bool isMounted(const std::string& mountPoint) {
    return isListedAsMounted(mountPoint);
}

std::optional<std::string> mountPointOfImage(const fs::path& imagePath) {
    std::error_code missing;
    const std::string wanted = fs::canonical(imagePath, missing).string();
    if (missing) return std::nullopt;
    return mountPointOf([&](const std::string& path) {
        std::error_code gone;
        return fs::equivalent(path, wanted, gone);
    });
}

std::optional<std::string> placeOfVolumeOf(const std::string& formerImagePath) {
    return mountPointOf([&](const std::string& path) { return path == formerImagePath; });
}

std::int64_t volumeUsedBytes(const fs::path& path) {
    struct statfs volume {};
    if (::statfs(path.c_str(), &volume) != 0) return 0;
    return static_cast<std::int64_t>(volume.f_blocks - volume.f_bavail) * volume.f_bsize;
}

bool keepsFilesOnVolumes() noexcept {
    return true;
}

bool isPackageOrVolumeRoot(const fs::path& path) {
    const fs::path item = path.has_filename() ? path : path.parent_path();
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(item, error))) return fs::is_directory(item, error);
    const std::string folder = fs::canonical(item, error).string();
    if (error) return false;
    return isPackage(item) || holdsMount(folder);
}

} // namespace Platform
