#include "Quillvane/Platform.h"

#include "Quillvane/ProcessRunner.h"

#include <cerrno>
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
    const ProcessResult info = listing(tools().hdiutil, {"info", "-plist"});
    plist_t list = nullptr;
    plist_from_xml(info.standardOutput.data(),
                   static_cast<std::uint32_t>(info.standardOutput.size()), &list);
    std::optional<std::string> found;
    const plist_t images = plist_dict_get_item(list, "images");
    for (std::uint32_t i = 0; i < plist_array_get_size(images); ++i) {
        const plist_t image = plist_array_get_item(images, i);
        const auto path = text(image, "image-path");
        if (path && fs::equivalent(*path, wanted, missing)) found = mountPoint(image);
    }
    plist_free(list);
    return found;
}

std::int64_t volumeUsedBytes(const fs::path& path) {
    struct statfs volume {};
    if (::statfs(path.c_str(), &volume) != 0) return 0;
    return static_cast<std::int64_t>(volume.f_blocks - volume.f_bavail) * volume.f_bsize;
}

} // namespace Platform
