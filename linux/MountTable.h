#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// One line of /proc/self/mountinfo.
struct MountEntry {
    unsigned major = 0;
    unsigned minor = 0;
    std::filesystem::path mountPoint;
    std::string type;
    std::string source;
    /// Whom a file system in user space belongs to.
    std::optional<uid_t> user;

    /// False for what another user serves, root included: it answers when and what it likes.
    bool isOwn() const;

    /// The name of the volume's device as `attach` prints it. There is no device; the number is the
    /// one that the kernel keeps for the mount, so it is unique as long as the volume is mounted.
    std::string deviceName() const { return "/dev/disk" + std::to_string(minor); }

    /// Whether both are mounts of one file system, wherever they are. The device's number alone
    /// would not do: it is free for another mount as soon as the last one of this has gone.
    bool isSameVolume(const MountEntry& other) const;
};

/// What is mounted, in the order in which it was mounted. There is no other record of the volumes
/// in use: a list of our own could be wrong.
class MountTable {
public:
    /// The file-system type of an attached volume; its source is the image's absolute path.
    static constexpr const char* volumeType = "fuse.quillvane";
    /// The type of a `PlaintextExport`.
    static constexpr const char* exportType = "fuse.quillvane-export";

    /// The mounts that this process sees. Throws `std::system_error`.
    static MountTable current();
    /// Lines that are not understood are left out.
    explicit MountTable(std::string_view mountInfo);

    const std::vector<MountEntry>& entries() const noexcept { return entries_; }
    /// The topmost mount at exactly this path.
    std::optional<MountEntry> at(const std::filesystem::path& mountPoint) const;
    /// Where `volume` is mounted now: renaming a directory above moves a mount, and it may be
    /// mounted at several places. None when it has gone.
    std::vector<MountEntry> mountsOf(const MountEntry& volume) const;
    /// The attached volume that `target` names: by device name or by mount point.
    std::optional<MountEntry> volume(const std::string& target) const;

private:
    std::vector<MountEntry> entries_;
};

/// Whether the server of this mount has died. Only the user's own are asked; any other counts as
/// alive.
bool isDeadMount(const MountEntry& mount);
