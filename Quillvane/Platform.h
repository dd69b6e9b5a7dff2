#pragma once

#include <compare>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <system_error>
#include <utility>
#include <vector>

/// The narrow seam to the operating system: everything in which the systems differ. One body per
/// system stands in the folder named after it. Safe on any thread unless it says otherwise.
namespace Platform {

/// Absolute paths of the programs that the engine runs.
struct Tools {
    std::filesystem::path hdiutil;
    std::filesystem::path ditto;
    std::filesystem::path open;
    std::filesystem::path mount; ///< unused where the system lists its mounts otherwise
    /// True when `ditto` succeeds only if it has compared all of the copy with the original.
    bool dittoCompares = false;
};

/// Fixed by the system, or found beside our own executable; never from the environment.
const Tools& tools();
/// Puts stand-ins in place, for tests. To be called while no operation runs.
void setTools(Tools tools);

/// True while a volume is mounted exactly at `mountPoint`, an absolute path. A mount whose server
/// has died does not count; one of ours is cleaned up. Waits for a server that does not answer.
/// Throws `std::system_error` when the system does not tell what is mounted.
bool isMounted(const std::string& mountPoint);
/// The same as the system's list of mounts has it, be the volume's server dead or hung: never waits
/// for it. Throws `std::system_error` when the system does not tell.
bool isListedAsMounted(const std::string& mountPoint);
/// Where the image file's volume is mounted, the newest when there are several; the image may have
/// been renamed meanwhile. A path that does not exist is mounted nowhere. Waits for the servers of
/// volumes. Throws `std::system_error` when the system does not tell what is mounted.
std::optional<std::string> mountPointOfImage(const std::filesystem::path& imagePath);

/// Where the volume is mounted now whose image had this absolute path when it was mounted:
/// elsewhere when a directory above both was renamed. Throws `std::system_error` when the system
/// does not tell.
std::optional<std::string> placeOfVolumeOf(const std::string& formerImagePath);

/// Makes file managers show the item or leave it out. Nothing is done for a name that the system
/// leaves out anyway, or cannot list.
std::error_code setHidden(const std::filesystem::path& path, bool hidden);
/// True when file managers leave the item out.
bool isHidden(const std::filesystem::path& path);

/// Bytes that the user may still write to the volume that holds `path`; 0 when unknown.
std::int64_t availableCapacity(const std::filesystem::path& path);
/// Bytes in use on the volume that holds `path`; 0 when unknown.
std::int64_t volumeUsedBytes(const std::filesystem::path& path);
/// What the user calls the volume that holds `path`; none when it has no name or `path` does not
/// exist.
std::optional<std::string> volumeName(const std::filesystem::path& path);

/// True where the system keeps files of its own at the root of every volume, so that they are in
/// copies of a volume, too, and may differ there.
bool keepsFilesOnVolumes() noexcept;

/// True for what cannot be replaced by an item: a package, a mount point, a folder with a mount
/// inside it, a symbolic link to a folder. A trailing slash makes no difference. Throws
/// `std::system_error` when the system does not tell what is mounted.
bool isPackageOrVolumeRoot(const std::filesystem::path& path);

/// Of the contents.
timespec modificationTime(const struct stat& status) noexcept;
/// Of the contents or of what is kept about them.
timespec changeTime(const struct stat& status) noexcept;
/// When the file was made, in nanoseconds since the epoch; a link is not followed. 0 when the file
/// system keeps no such time on the disk, or it cannot be told.
std::int64_t birthTime(const std::filesystem::path& path) noexcept;

/// Extended attributes and access control lists by name, in order.
using Attributes = std::vector<std::pair<std::string, std::string>>;
/// What is kept so about `name` in the open directory, without following a link, or about the open
/// file itself when `name` is empty. Leaves out what the system keeps for itself about this one
/// file. Nothing when not all can be read.
std::optional<Attributes> attributesOf(int directory, const std::string& name);

/// Keeps the open image from being attached for writing as long as the descriptor is open; false
/// when it is attached so already. Where the system does not tell, it is as if it were not.
bool reserveImage(int image) noexcept;

/// True when the file system of the open file or directory is the kernel's own, on this computer's
/// disks: neither a network drive nor one in user space.
bool isLocal(int fd) noexcept;

/// True when something is mounted on the open directory, be it of the file system above it.
bool isMountRoot(int directory) noexcept;

/// Tells of files whether somebody has them open for writing, as far as the system lets us know: it
/// says no of files it tells nothing about, as on network drives. On Linux it sees mapped files,
/// too, and a program that opens the file in that very moment and will not wait is refused once; on
/// macOS it sees the state at its construction. May be used by one thread at a time.
class WriterCheck {
public:
    /// Throws `std::system_error` when the system does not tell at all.
    WriterCheck();
    /// `file` is a regular file, opened for reading only.
    bool isOpenForWriting(int file) const;

private:
    struct FileIdentity {
        dev_t device;
        ino_t inode;
        auto operator<=>(const FileIdentity&) const = default;
    };
    /// As of the construction, in order; unused where the system can be asked file by file.
    std::vector<FileIdentity> openForWriting_;
};

/// Returns when the file's or directory's data is on the disk. Throws `std::system_error`.
void fullSync(int fd);
/// Returns when `folder`, just filled by the copy tool, is on the disk with all its contents and
/// its entry in the parent directory. Throws `std::system_error`.
void syncCopiedFolder(const std::filesystem::path& folder);

/// Where the program keeps what it must remember of this user between two runs, beside the
/// preferences; an absolute path that need not exist. Throws `std::system_error` when the user has
/// no home.
std::filesystem::path stateDirectory();
/// Takes another place, for tests; the empty path brings the system's own back. To be called while
/// no operation runs.
void setStateDirectory(std::filesystem::path directory);

/// Gives a file another name in the same directory, and fails where there is something by that name
/// already; where the file system cannot see to that, something that appears in the very moment is
/// replaced. Throws `std::filesystem::filesystem_error`.
void renameWithoutReplacing(const std::filesystem::path& from, const std::filesystem::path& to);
/// True while a program makes or serves a volume in the image file, and when the system does not
/// let us look.
bool isImageInUse(const std::filesystem::path& imagePath);

/// Two ends of a new pipe, neither inherited by any child. Throws `std::system_error`.
struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;
};
Pipe makePipe();

/// A program to start; a descriptor of -1 lets the child inherit ours.
struct Launch {
    const std::filesystem::path& executable;
    const std::vector<std::string>& arguments;
    int standardInput = -1;
    int standardOutput = -1;
    int standardError = -1;
};
/// Starts the program in a process group of its own with default signal handling, an empty signal
/// mask and no other descriptors. Returns 0 and sets `child`, or the errno of what prevented it.
int launch(const Launch& request, pid_t& child);

/// Keeps this process's memory, where secrets are, out of core dumps and from the user's other
/// processes, as far as the system grants it.
void disableCoreDumps() noexcept;

} // namespace Platform
