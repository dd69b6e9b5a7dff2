#include "linux/ditto/Status.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <array>
#include <limits>

namespace {

timespec timeOf(const statx_timestamp& stamp) {
    return {static_cast<time_t>(stamp.tv_sec), static_cast<long>(stamp.tv_nsec)};
}

bool equal(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

Status statusAt(Side side, int directory, const char* name) {
    struct statx found {};
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_EMPTY_PATH;
    if (statx(directory, name, flags, STATX_BASIC_STATS, &found) != 0) {
        fail(side, "cannot be examined");
    }
    Status status;
    status.device = makedev(found.stx_dev_major, found.stx_dev_minor);
    status.inode = found.stx_ino;
    status.mode = found.stx_mode;
    status.links = found.stx_nlink;
    status.owner = found.stx_uid;
    status.group = found.stx_gid;
    status.node = makedev(found.stx_rdev_major, found.stx_rdev_minor);
    status.size = found.stx_size;
    status.blocks = found.stx_blocks;
    status.accessed = timeOf(found.stx_atime);
    status.modified = timeOf(found.stx_mtime);
    status.changed = timeOf(found.stx_ctime);
    status.mountRoot = (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return status;
}

bool sameTime(const timespec& original, const timespec& copy) noexcept {
    if (equal(original, copy)) return true;

    // Steps of a second and less: NTFS, many network protocols, exFAT, ext4 with small inodes.
    constexpr std::array<long, 5> steps{100, 1'000, 1'000'000, 10'000'000, 1'000'000'000};
    for (const long step : steps) {
        const timespec cut{original.tv_sec, original.tv_nsec - original.tv_nsec % step};
        if (equal(cut, copy)) return true;
    }
    if (equal({original.tv_sec & ~time_t{1}, 0}, copy)) return true; // FAT: two seconds

    // The ends of 32-bit times, signed and unsigned, of ext4's 34-bit and of XFS's 64-bit ones.
    constexpr std::array<time_t, 2> earliest{std::numeric_limits<std::int32_t>::min(), 0};
    constexpr std::array<time_t, 4> latest{std::numeric_limits<std::int32_t>::max(),
                                           std::numeric_limits<std::uint32_t>::max(), 0x37fffffffL,
                                           16'299'260'424L};
    for (const time_t end : earliest) {
        if (copy.tv_sec == end && original.tv_sec < end) return true;
    }
    for (const time_t end : latest) {
        if (copy.tv_sec == end && original.tv_sec >= end) return true;
    }
    return false;
}
