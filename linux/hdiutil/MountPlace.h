#pragma once

#include "Quillvane/FileDescriptor.h"

#include <filesystem>
#include <string>
#include <string_view>

/// The directory on which a volume is mounted.
///
/// Places that the tool chooses are made and removed by it; a directory that the caller names must
/// exist, and is left alone.
class MountPlace {
public:
    /// A new directory named after the volume: in ~/Volumes when `browsable`, otherwise in the
    /// runtime directory, which file managers do not show. Throws `ToolError`, `std::system_error`.
    static MountPlace make(std::string_view volumeName, bool browsable);
    /// The caller's directory; not a link to one, which another user could lead elsewhere. Throws
    /// `ToolError` when it is none.
    static MountPlace existing(const std::filesystem::path& directory);

    /// Whether users see it: one that was named, or made to be browsed.
    bool isShown() const noexcept { return shown_; }
    /// Where it was when it was made or named.
    const std::filesystem::path& path() const noexcept { return path_; }
    /// True when a mount there is on the directory that was made or named, and not on another that
    /// was put in its place.
    bool isAt(const std::filesystem::path& mountPoint) const;
    /// To be called when something is mounted there: others may look for a place again.
    void mounted() const noexcept;
    /// Removes the directory if `make` made it; best effort, as the volume has gone already.
    void remove() const noexcept;

private:
    MountPlace(std::filesystem::path path, bool shown, FileDescriptor places)
        : path_(std::move(path)), shown_(shown), places_(std::move(places)) {}

    std::filesystem::path path_;
    bool shown_;
    /// The directory that `make` made the place in, which may be renamed; locked until `mounted`.
    FileDescriptor places_;
    FileDescriptor held_; ///< the caller's directory
};

/// `volumeName` as the name of a directory: no slash, no control characters, valid UTF-8, at most
/// `longest` bytes, never empty or one of the names with a meaning.
std::string directoryName(std::string_view volumeName, std::size_t longest = 255);

/// Takes away volumes and exports whose server has died, in the places where `make` and
/// `PlaintextExport` put them, and their directories. Best effort.
void removeDeadMounts() noexcept;

/// Takes away a dead mount at `mountPoint`, and its directory where `make` could have made it.
/// Throws `std::system_error`.
void removeDeadMount(const std::filesystem::path& mountPoint);
