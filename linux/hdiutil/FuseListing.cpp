#include "FuseListing.h"

#include "FuseRequest.h"

#include <string>
#include <vector>

using namespace FuseOperations;

namespace {

struct ListedEntry {
    std::string name;
    ext2_ino_t inode;
    mode_t mode;
    off_t next;
};

mode_t modeOf(int type) {
    switch (type) {
    case EXT2_FT_REG_FILE:
        return S_IFREG;
    case EXT2_FT_DIR:
        return S_IFDIR;
    case EXT2_FT_CHRDEV:
        return S_IFCHR;
    case EXT2_FT_BLKDEV:
        return S_IFBLK;
    case EXT2_FT_FIFO:
        return S_IFIFO;
    case EXT2_FT_SOCK:
        return S_IFSOCK;
    case EXT2_FT_SYMLINK:
        return S_IFLNK;
    default:
        return 0;
    }
}

using SizeOfEntry = std::size_t (*)(fuse_req_t request, const char* name);

/// As many entries as an answer of `size` bytes holds.
std::vector<ListedEntry> list(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t from,
                              SizeOfEntry sizeOf) {
    std::vector<ListedEntry> entries;
    std::size_t used = 0;
    volumeOf(request).readDirectory(
        inodeOf(node), static_cast<std::uint64_t>(from), [&](const Directory::Entry& entry) {
            ListedEntry listed{std::string(entry.name), entry.inode, modeOf(entry.type),
                               static_cast<off_t>(entry.next)};
            used += sizeOf(request, listed.name.c_str());
            if (used > size) return false;
            entries.push_back(std::move(listed));
            return true;
        });
    return entries;
}

} // namespace

void FuseOperations::readDirectory(fuse_req_t request, fuse_ino_t node, std::size_t size,
                                   off_t from, fuse_file_info*) {
    answer(request, [&] {
        const SizeOfEntry sizeOf = [](fuse_req_t asked, const char* name) {
            return fuse_add_direntry(asked, nullptr, 0, name, nullptr, 0);
        };
        std::vector<char> buffer(size);
        std::size_t used = 0;
        for (const ListedEntry& entry : list(request, node, size, from, sizeOf)) {
            struct stat attributes {};
            attributes.st_ino = entry.inode;
            attributes.st_mode = entry.mode;
            used += fuse_add_direntry(request, buffer.data() + used, size - used,
                                      entry.name.c_str(), &attributes, entry.next);
        }
        fuse_reply_buf(request, buffer.data(), used);
    });
}

namespace {

/// "." and ".." are listed without being referenced, as are inodes that cannot be read: one that is
/// damaged must not hide its neighbours.
fuse_entry_param listedWithAttributes(Ext4Volume& volume, const ListedEntry& entry) {
    if (entry.name != "." && entry.name != "..") {
        try {
            return entryFor(volume, volume.reference(entry.inode));
        } catch (const std::system_error& failure) {
            volume.noteFailure(failure.code().value());
        }
    }
    fuse_entry_param bare{};
    bare.attr.st_ino = entry.inode;
    bare.attr.st_mode = entry.mode;
    return bare;
}

} // namespace

void FuseOperations::readDirectoryPlus(fuse_req_t request, fuse_ino_t node, std::size_t size,
                                       off_t from, fuse_file_info*) {
    answer(request, [&] {
        const SizeOfEntry sizeOf = [](fuse_req_t asked, const char* name) {
            return fuse_add_direntry_plus(asked, nullptr, 0, name, nullptr, 0);
        };
        Ext4Volume& volume = volumeOf(request);
        std::vector<char> buffer(size);
        std::size_t used = 0;
        for (const ListedEntry& entry : list(request, node, size, from, sizeOf)) {
            const fuse_entry_param full = listedWithAttributes(volume, entry);
            used += fuse_add_direntry_plus(request, buffer.data() + used, size - used,
                                           entry.name.c_str(), &full, entry.next);
        }
        fuse_reply_buf(request, buffer.data(), used);
    });
}
