#include "MountPlace.h"

#include "RuntimeDirectory.h"
#include "ToolError.h"
#include "Unmount.h"
#include "linux/MountTable.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using Path = std::filesystem::path;

constexpr const char* replacementCharacter = "\xef\xbf\xbd";

Path browsablePlaces() {
    return homeDirectory() / "Volumes";
}

// The length of the well-formed UTF-8 sequence at the start of `text`; 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    if (lead < 0x80) return 1;
    if (lead >= 0xc2 && lead <= 0xdf) length = 2;
    if (lead >= 0xe0 && lead <= 0xef) length = 3;
    if (lead >= 0xf0 && lead <= 0xf4) length = 4;
    if (length == 0 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    const bool overlong = (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xf0 && byte(1) < 0x90);
    const bool surrogate = lead == 0xed && byte(1) > 0x9f;
    const bool tooLarge = lead == 0xf4 && byte(1) > 0x8f;
    return overlong || surrogate || tooLarge ? 0 : length;
}

// What stands in the directory name for the character `sequence`.
std::string_view allowed(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (first == '/') return ":";
    // A property list can hold line feeds and tabs, but no other control character.
    if ((first < 0x20 && first != '\n' && first != '\t') || first == 0x7f) return "_";
    return sequence;
}

// Tells our directories from those that a user has made beside them.
constexpr const char* mark = "user.quillvane.mountpoint";

bool makePlace(const Path& path) {
    if (::mkdir(path.c_str(), 0700) == 0) {
        // Best effort: not every file system has such attributes.
        ::setxattr(path.c_str(), mark, "", 0, 0);
        return true;
    }
    if (errno == EEXIST) return false;
    throw std::system_error(errno, std::generic_category(), path.string());
}

// A power failure leaves the directories of volumes that were open. They are empty, and an
// occupied one is a mount point, so rmdir takes away nothing else.
bool removeAbandoned(const Path& path) {
    return ::lgetxattr(path.c_str(), mark, nullptr, 0) >= 0 && ::rmdir(path.c_str()) == 0;
}

// Where the open directory is now, without links.
Path placeOf(const FileDescriptor& directory) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(directory.get()));
}

// Held while a place is made but nothing is mounted on it, when it looks abandoned.
FileDescriptor lockPlaces(const Path& places) {
    FileDescriptor result(::open(places.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!result || ::flock(result.get(), LOCK_EX) != 0)
        throw std::system_error(errno, std::generic_category(), places.string());
    return result;
}

bool isChosenPlace(const Path& mountPoint) {
    std::error_code error;
    for (const Path& places : {browsablePlaces(), runtimeDirectory()}) {
        if (mountPoint.parent_path() == std::filesystem::canonical(places, error)) return true;
    }
    return false;
}

} // namespace

std::string directoryName(std::string_view volumeName, std::size_t longest) {
    std::string result;
    while (!volumeName.empty()) {
        const std::size_t length = sequenceLength(volumeName);
        const std::string_view next =
            length == 0 ? replacementCharacter : allowed(volumeName.substr(0, length));
        if (result.size() + next.size() > longest) break;
        result += next;
        volumeName.remove_prefix(length == 0 ? 1 : length);
    }
    if (result.empty() || result == "." || result == "..") return "untitled";
    return result;
}

MountPlace MountPlace::make(std::string_view volumeName, bool browsable) {
    Path places = runtimeDirectory();
    if (browsable) {
        places = browsablePlaces();
        if (::mkdir(places.c_str(), 0700) != 0 && errno != EEXIST)
            throw std::system_error(errno, std::generic_category(), places.string());
    }
    // The mount table knows paths without symbolic links.
    places = std::filesystem::canonical(places);
    FileDescriptor lock = lockPlaces(places);
    for (int number = 0; number < 10000; ++number) {
        const std::string suffix = number == 0 ? "" : " " + std::to_string(number);
        const Path path = places / (directoryName(volumeName, 255 - suffix.size()) + suffix);
        if (makePlace(path) || (removeAbandoned(path) && makePlace(path)))
            return {path, browsable, std::move(lock)};
    }
    throw ToolError("no free name in " + places.string());
}

MountPlace MountPlace::existing(const Path& directory) {
    const Path name = directory.has_filename() ? directory : directory.parent_path();
    constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor held(::open(name.c_str(), flags));
    if (!held) throw ToolError::fromErrno(errno);
    MountPlace place(placeOf(held), /*shown=*/true, FileDescriptor());
    place.held_ = std::move(held);
    return place;
}

bool MountPlace::isAt(const Path& mountPoint) const {
    return mountPoint == (held_ ? placeOf(held_) : path_);
}

void MountPlace::mounted() const noexcept {
    if (places_) ::flock(places_.get(), LOCK_UN);
}

void MountPlace::remove() const noexcept {
    if (places_) ::unlinkat(places_.get(), path_.filename().c_str(), AT_REMOVEDIR);
}

void removeDeadMount(const Path& mountPoint) {
    unmountLazily(mountPoint);
    if (isChosenPlace(mountPoint)) ::rmdir(mountPoint.c_str());
}

void removeDeadMounts() noexcept {
    try {
        const MountTable table = MountTable::current();
        for (const MountEntry& entry : table.entries()) {
            const bool ours =
                entry.type == MountTable::volumeType || entry.type == MountTable::exportType;
            if (ours && isChosenPlace(entry.mountPoint) && isDeadMount(entry))
                removeDeadMount(entry.mountPoint);
        }
    } catch (const std::exception&) {
        // A dead mount is in nobody's way but the eye's; the next run tries again.
    }
}
