#include "VolumeName.h"

#include "Quillvane/Platform.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace {

using Path = std::filesystem::path;

/// In names of links the system writes blanks, slashes and the like as "\x20" and so on.
std::string unescaped(std::string_view text) {
    constexpr std::string_view mark = "\\x";
    std::string result;
    while (!text.empty()) {
        std::size_t taken = 1;
        char character = text.front();
        if (unsigned char code = 0; text.size() >= 4 && text.starts_with(mark)) {
            const char* const end = text.data() + 4;
            if (std::from_chars(text.data() + 2, end, code, 16).ptr == end) {
                character = static_cast<char>(code);
                taken = 4;
            }
        }
        result += character;
        text.remove_prefix(taken);
    }
    return result;
}

bool isSameOrBelow(const Path& path, const Path& folder) {
    return std::ranges::mismatch(path, folder).in2 == folder.end();
}

/// Where volumes are mounted by their names.
bool isPlaceForVolumes(const Path& mountPoint) {
    return std::ranges::any_of(std::array{"/media", "/run/media", "/mnt"}, [&](const char* folder) {
        return mountPoint != folder && isSameOrBelow(mountPoint, folder);
    });
}

} // namespace

std::optional<std::string> VolumeName::label(dev_t device, const Path& labels) {
    std::error_code error; // no such directory: nothing has a label
    for (auto link = std::filesystem::directory_iterator(labels, error);
         !error && link != std::filesystem::directory_iterator(); link.increment(error)) {
        struct stat target {};
        if (::stat(link->path().c_str(), &target) == 0 && S_ISBLK(target.st_mode) &&
            target.st_rdev == device)
            return unescaped(link->path().filename().native());
    }
    return std::nullopt;
}

std::optional<std::string> VolumeName::mountedAs(const MountTable& mounts, const Path& path) {
    const MountEntry* holder = nullptr;
    for (const MountEntry& mount : mounts.entries()) {
        // Of mounts on the same place the newest is on top.
        if (isSameOrBelow(path, mount.mountPoint) &&
            (holder == nullptr || isSameOrBelow(mount.mountPoint, holder->mountPoint)))
            holder = &mount;
    }
    if (holder == nullptr ||
        (holder->type != MountTable::volumeType && !isPlaceForVolumes(holder->mountPoint)))
        return std::nullopt;
    return holder->mountPoint.filename().string();
}

std::optional<std::string> Platform::volumeName(const Path& path) {
    try {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return std::nullopt;
        if (auto label = VolumeName::label(status.st_dev, "/dev/disk/by-label")) return label;
        return VolumeName::mountedAs(MountTable::current(), std::filesystem::canonical(path));
    } catch (const std::system_error&) {
        return std::nullopt; // gone meanwhile, or the system does not tell
    }
}
