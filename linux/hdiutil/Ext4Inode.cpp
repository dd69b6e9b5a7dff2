#include "Ext4Inode.h"

#include "Ext2Error.h"

#include <cerrno>
#include <sys/sysmacros.h>

namespace {

// A time is 32 signed bits of seconds, 2 more bits above them and 30 bits of nanoseconds
// (Linux, Documentation/filesystems/ext4/inodes.rst, "Inode Timestamps").
constexpr int epochBits = 2;
constexpr std::uint32_t epochMask = (1U << epochBits) - 1;
constexpr std::int64_t smallestSecond = INT32_MIN;
constexpr std::int64_t largestSecond = (3LL << 32) + INT32_MAX;

timespec decode(std::uint32_t seconds, std::uint32_t extra) {
    timespec when{};
    when.tv_sec = static_cast<std::int32_t>(seconds);
    when.tv_sec += static_cast<std::int64_t>(extra & epochMask) << 32;
    when.tv_nsec = extra >> epochBits;
    return when;
}

void encode(const timespec& when, std::uint32_t& seconds, std::uint32_t& extra) {
    std::int64_t second = when.tv_sec;
    std::int64_t nanosecond = when.tv_nsec;
    // As the kernel does it, the first and the last second are never divided.
    if (second <= smallestSecond || second >= largestSecond) {
        second = second <= smallestSecond ? smallestSecond : largestSecond;
        nanosecond = 0;
    }
    const auto low = static_cast<std::int32_t>(second & 0xffffffff);
    const auto epoch = static_cast<std::uint32_t>((second - low) >> 32) & epochMask;
    seconds = static_cast<std::uint32_t>(low);
    extra = static_cast<std::uint32_t>(nanosecond << epochBits) | epoch;
}

/// The device number lies in the first two block pointers, the short form in the first.
dev_t deviceOf(const ext2_inode_large& raw) {
    if (raw.i_block[0] != 0) return makedev((raw.i_block[0] >> 8) & 0xff, raw.i_block[0] & 0xff);
    const std::uint32_t wide = raw.i_block[1];
    return makedev((wide >> 8) & 0xfff, (wide & 0xff) | ((wide >> 12) & 0xfff00));
}

} // namespace

std::uint64_t Ext4Inode::size() const noexcept {
    std::uint64_t size = raw.i_size;
    if (isRegular() || isDirectory()) size |= static_cast<std::uint64_t>(raw.i_size_high) << 32;
    return size;
}

uid_t Ext4Inode::owner() const noexcept {
    return raw.i_uid | static_cast<uid_t>(raw.osd2.linux2.l_i_uid_high) << 16;
}

gid_t Ext4Inode::group() const noexcept {
    return raw.i_gid | static_cast<gid_t>(raw.osd2.linux2.l_i_gid_high) << 16;
}

void Ext4Inode::setOwner(uid_t owner) noexcept {
    raw.i_uid = static_cast<std::uint16_t>(owner);
    raw.osd2.linux2.l_i_uid_high = static_cast<std::uint16_t>(owner >> 16);
}

void Ext4Inode::setGroup(gid_t group) noexcept {
    raw.i_gid = static_cast<std::uint16_t>(group);
    raw.osd2.linux2.l_i_gid_high = static_cast<std::uint16_t>(group >> 16);
}

void Ext4Inode::setDevice(dev_t device) noexcept {
    const unsigned high = major(device);
    const unsigned low = minor(device);
    if (high < 256 && low < 256)
        raw.i_block[0] = high << 8 | low;
    else
        raw.i_block[1] = (low & 0xff) | high << 8 | (low & ~0xffU) << 12;
}

timespec Ext4Inode::modified() const noexcept {
    return decode(raw.i_mtime, raw.i_mtime_extra);
}

void Ext4Inode::setAccessed(const timespec& when) noexcept {
    encode(when, raw.i_atime, raw.i_atime_extra);
}
void Ext4Inode::setModified(const timespec& when) noexcept {
    encode(when, raw.i_mtime, raw.i_mtime_extra);
}
void Ext4Inode::setChanged(const timespec& when) noexcept {
    encode(when, raw.i_ctime, raw.i_ctime_extra);
}
void Ext4Inode::setBorn(const timespec& when) noexcept {
    encode(when, raw.i_crtime, raw.i_crtime_extra);
}

struct stat Ext4Inode::attributes() const noexcept {
    struct stat st {};
    st.st_ino = number;
    st.st_mode = raw.i_mode;
    st.st_nlink = raw.i_links_count;
    st.st_uid = owner();
    st.st_gid = group();
    if (S_ISCHR(raw.i_mode) || S_ISBLK(raw.i_mode)) st.st_rdev = deviceOf(raw);
    st.st_size = static_cast<off_t>(size());
    st.st_blksize = 4096;
    st.st_blocks = static_cast<blkcnt_t>(
        raw.i_blocks | static_cast<std::uint64_t>(raw.osd2.linux2.l_i_blocks_hi) << 32);
    if ((raw.i_flags & EXT4_HUGE_FILE_FL) != 0) st.st_blocks *= st.st_blksize / 512;
    st.st_atim = decode(raw.i_atime, raw.i_atime_extra);
    st.st_mtim = decode(raw.i_mtime, raw.i_mtime_extra);
    st.st_ctim = decode(raw.i_ctime, raw.i_ctime_extra);
    return st;
}

Ext4Inode Ext4Inodes::load(ext2_filsys fs, ext2_ino_t number) {
    if (number == 0 || number > fs->super->s_inodes_count) failWith(ESTALE);
    Ext4Inode inode;
    inode.number = number;
    check(ext2fs_read_inode_full(fs, number, inode.base(), sizeof inode.raw));
    if (inode.raw.i_mode == 0) failWith(ESTALE);
    return inode;
}

void Ext4Inodes::store(ext2_filsys fs, Ext4Inode& inode) {
    check(ext2fs_write_inode_full(fs, inode.number, inode.base(), sizeof inode.raw));
}

void Ext4Inodes::setSize(ext2_filsys fs, Ext4Inode& inode, std::uint64_t size) {
    check(ext2fs_inode_size_set(fs, inode.base(), size));
}

timespec Ext4Inodes::now() noexcept {
    timespec when{};
    ::clock_gettime(CLOCK_REALTIME, &when);
    return when;
}
