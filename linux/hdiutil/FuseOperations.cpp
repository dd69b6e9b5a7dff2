#include "FuseOperations.h"

#include "FuseListing.h"
#include "FuseRequest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

using namespace FuseOperations;

namespace {

constexpr unsigned largestRequest = 1024 * 1024;
constexpr int notKnown = ENOSYS; // the kernel asks no more

void replyEntry(fuse_req_t request, const struct stat& attributes) {
    const fuse_entry_param entry = entryFor(volumeOf(request), attributes);
    Ext4Volume& volume = volumeOf(request);
    // A request that was given up holds no reference.
    if (fuse_reply_entry(request, &entry) == -ENOENT) volume.forget(inodeOf(entry.ino), 1);
}

void init(void*, fuse_conn_info* connection) {
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_HANDLE_KILLPRIV | FUSE_CAP_ATOMIC_O_TRUNC |
                                               FUSE_CAP_AUTO_INVAL_DATA | FUSE_CAP_WRITEBACK_CACHE |
                                               FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_SPLICE_READ |
                                               FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
    connection->want |= connection->capable &
                        static_cast<unsigned>(FUSE_CAP_POSIX_ACL | FUSE_CAP_DONT_MASK |
                                              FUSE_CAP_IOCTL_DIR | FUSE_CAP_READDIRPLUS |
                                              FUSE_CAP_CACHE_SYMLINKS | FUSE_CAP_PARALLEL_DIROPS);
    connection->max_write = largestRequest;
    connection->max_readahead = largestRequest;
    connection->time_gran = 1;
}

void lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        const auto found = volumeOf(request).lookup(inodeOf(parent), name);
        if (found) return replyEntry(request, *found);
        fuse_entry_param nothing{}; // the kernel may remember that there is nothing
        nothing.entry_timeout = forever;
        fuse_reply_entry(request, &nothing);
    });
}

/// Nobody waits for an answer; an inode that could not be freed now is freed at the end.
void release(Ext4Volume& volume, fuse_ino_t node, std::uint64_t count) noexcept {
    try {
        volume.forget(inodeOf(node), count);
    } catch (const std::system_error& error) {
        volume.noteFailure(error.code().value());
    } catch (const std::exception&) {
        volume.noteFailure(EIO);
    }
}

void forget(fuse_req_t request, fuse_ino_t node, std::uint64_t count) {
    release(volumeOf(request), node, count);
    fuse_reply_none(request);
}

void forgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
    for (std::size_t i = 0; i < count; ++i)
        release(volumeOf(request), forgets[i].ino, forgets[i].nlookup);
    fuse_reply_none(request);
}

void getAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info*) {
    answer(request, [&] {
        const struct stat attributes = volumeOf(request).attributes(inodeOf(node));
        fuse_reply_attr(request, &attributes, forever);
    });
}

void setAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                   fuse_file_info*) {
    answer(request, [&] {
        Ext4Volume::Changes changes;
        if ((which & FUSE_SET_ATTR_MODE) != 0) changes.mode = wanted->st_mode;
        if ((which & FUSE_SET_ATTR_UID) != 0) changes.owner = wanted->st_uid;
        if ((which & FUSE_SET_ATTR_GID) != 0) changes.group = wanted->st_gid;
        if ((which & FUSE_SET_ATTR_SIZE) != 0)
            changes.size = static_cast<std::uint64_t>(wanted->st_size);
        if ((which & FUSE_SET_ATTR_ATIME) != 0) changes.accessed = wanted->st_atim;
        if ((which & FUSE_SET_ATTR_MTIME) != 0) changes.modified = wanted->st_mtim;
        if ((which & FUSE_SET_ATTR_ATIME_NOW) != 0) changes.accessed = Ext4Inodes::now();
        if ((which & FUSE_SET_ATTR_MTIME_NOW) != 0) changes.modified = Ext4Inodes::now();
        const struct stat attributes =
            volumeOf(request).setAttributes(inodeOf(node), changes, callerOf(request));
        fuse_reply_attr(request, &attributes, forever);
    });
}

void readLink(fuse_req_t request, fuse_ino_t node) {
    answer(request, [&] {
        fuse_reply_readlink(request, volumeOf(request).readLink(inodeOf(node)).c_str());
    });
}

void makeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
    answer(request, [&] {
        replyEntry(request, volumeOf(request).create(inodeOf(parent), name, {mode, device, {}},
                                                     callerOf(request)));
    });
}

void makeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode) {
    makeNode(request, parent, name, (mode & ~static_cast<mode_t>(S_IFMT)) | S_IFDIR, 0);
}

void makeSymlink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        replyEntry(request,
                   volumeOf(request).create(inodeOf(parent), name, {S_IFLNK | 0777, 0, target},
                                            callerOf(request)));
    });
}

void createFile(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode,
                fuse_file_info* file) {
    answer(request, [&] {
        Ext4Volume& volume = volumeOf(request);
        const mode_t regular = (mode & ~static_cast<mode_t>(S_IFMT)) | S_IFREG;
        const struct stat attributes =
            volume.create(inodeOf(parent), name, {regular, 0, {}}, callerOf(request));
        const fuse_entry_param entry = entryFor(volume, attributes);
        file->keep_cache = 1;
        if (fuse_reply_create(request, &entry, file) == -ENOENT)
            volume.forget(inodeOf(entry.ino), 1);
    });
}

void link(fuse_req_t request, fuse_ino_t node, fuse_ino_t newParent, const char* newName) {
    answer(request, [&] {
        replyEntry(request, volumeOf(request).link(inodeOf(node), inodeOf(newParent), newName));
    });
}

void unlink(fuse_req_t request, fuse_ino_t parent, const char* name) {
    confirm(request, [&] { volumeOf(request).unlink(inodeOf(parent), name); });
}

void removeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name) {
    confirm(request, [&] { volumeOf(request).removeDirectory(inodeOf(parent), name); });
}

void rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
            const char* newName, unsigned flags) {
    confirm(request, [&] {
        volumeOf(request).rename(inodeOf(parent), name, inodeOf(newParent), newName, flags);
    });
}

// An open file or directory keeps the kernel's reference to its inode, so there is nothing to do
// when one is opened; saying so once spares the kernel two requests for each.
void open(fuse_req_t request, fuse_ino_t, fuse_file_info*) {
    fuse_reply_err(request, notKnown);
}

void read(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info*) {
    answer(request, [&] {
        std::vector<std::byte> buffer(size);
        const std::size_t got =
            volumeOf(request).read(inodeOf(node), static_cast<std::uint64_t>(offset), buffer);
        fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), got);
    });
}

void write(fuse_req_t request, fuse_ino_t node, const char* data, std::size_t size, off_t offset,
           fuse_file_info*) {
    answer(request, [&] {
        const std::size_t written =
            volumeOf(request).write(inodeOf(node), static_cast<std::uint64_t>(offset),
                                    std::as_bytes(std::span(data, size)), callerOf(request));
        fuse_reply_write(request, written);
    });
}

void synchronize(fuse_req_t request, fuse_ino_t node, int, fuse_file_info*) {
    confirm(request, [&] { volumeOf(request).syncFile(inodeOf(node)); });
}

void allocate(fuse_req_t request, fuse_ino_t node, int mode, off_t offset, off_t length,
              fuse_file_info*) {
    confirm(request, [&] {
        volumeOf(request).allocate(inodeOf(node), mode, static_cast<std::uint64_t>(offset),
                                   static_cast<std::uint64_t>(length), callerOf(request));
    });
}

void seek(fuse_req_t request, fuse_ino_t node, off_t offset, int whence, fuse_file_info*) {
    answer(request, [&] {
        fuse_reply_lseek(request, static_cast<off_t>(volumeOf(request).seek(
                                      inodeOf(node), static_cast<std::uint64_t>(offset), whence)));
    });
}

void statistics(fuse_req_t request, fuse_ino_t) {
    answer(request, [&] {
        const struct statvfs result = volumeOf(request).statistics();
        fuse_reply_statfs(request, &result);
    });
}

void setAttribute(fuse_req_t request, fuse_ino_t node, const char* name, const char* value,
                  std::size_t size, int flags) {
    confirm(request, [&] {
        volumeOf(request).setAttribute(inodeOf(node), name, std::as_bytes(std::span(value, size)),
                                       flags, callerOf(request));
    });
}

/// Answers with the bytes, or with how many they are when the caller has no room yet.
void replyBytes(fuse_req_t request, const char* data, std::size_t size, std::size_t room) {
    if (room == 0)
        fuse_reply_xattr(request, size);
    else if (room < size)
        fuse_reply_err(request, ERANGE);
    else
        fuse_reply_buf(request, data, size);
}

void getAttribute(fuse_req_t request, fuse_ino_t node, const char* name, std::size_t room) {
    answer(request, [&] {
        const auto value = volumeOf(request).attribute(inodeOf(node), name);
        replyBytes(request, reinterpret_cast<const char*>(value.data()), value.size(), room);
    });
}

void listAttributes(fuse_req_t request, fuse_ino_t node, std::size_t room) {
    answer(request, [&] {
        const bool privileged = fuse_req_ctx(request)->uid == 0;
        const std::string names = volumeOf(request).attributeNames(inodeOf(node), privileged);
        replyBytes(request, names.data(), names.size(), room);
    });
}

void removeAttribute(fuse_req_t request, fuse_ino_t node, const char* name) {
    confirm(request, [&] { volumeOf(request).removeAttribute(inodeOf(node), name); });
}

// `room` is what the command's number says, which has the size of the answer in it.
void control(fuse_req_t request, fuse_ino_t node, unsigned command, void*, fuse_file_info*,
             unsigned, const void*, std::size_t, std::size_t room) {
    const auto answer = [&](const auto& what) {
        if (room < sizeof what)
            fuse_reply_err(request, ENOTTY);
        else
            fuse_reply_ioctl(request, 0, &what, sizeof what);
    };
    if (node == FUSE_ROOT_ID && command == static_cast<unsigned>(controlAddressRequest))
        answer(contextOf(request).control);
    else if (node == FUSE_ROOT_ID && command == static_cast<unsigned>(imageIdentityRequest))
        answer(contextOf(request).image);
    else
        fuse_reply_err(request, ENOTTY);
}

fuse_lowlevel_ops makeTable() {
    fuse_lowlevel_ops table{};
    table.init = init;
    table.lookup = lookup;
    table.forget = forget;
    table.forget_multi = forgetMany;
    table.getattr = getAttributes;
    table.setattr = setAttributes;
    table.readlink = readLink;
    table.mknod = makeNode;
    table.mkdir = makeDirectory;
    table.symlink = makeSymlink;
    table.create = createFile;
    table.link = link;
    table.unlink = unlink;
    table.rmdir = removeDirectory;
    table.rename = rename;
    table.open = open;
    table.opendir = open;
    table.read = read;
    table.write = write;
    table.fsync = synchronize;
    table.fsyncdir = synchronize;
    table.fallocate = allocate;
    table.lseek = seek;
    table.readdir = readDirectory;
    table.readdirplus = readDirectoryPlus;
    table.statfs = statistics;
    table.setxattr = setAttribute;
    table.getxattr = getAttribute;
    table.listxattr = listAttributes;
    table.removexattr = removeAttribute;
    table.ioctl = control;
    return table;
}

} // namespace

const fuse_lowlevel_ops& FuseOperations::table() {
    static const fuse_lowlevel_ops operations = makeTable();
    return operations;
}
