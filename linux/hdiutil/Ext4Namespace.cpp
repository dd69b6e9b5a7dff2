// The names of a volume: finding, creating, linking, removing and renaming.

#include "Ext4Volume.h"

#include "Ext2Error.h"
#include "FileBlocks.h"

#include <ext2fs/ext3_extents.h>
#include <linux/fs.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr unsigned mostLinks = EXT2_LINK_MAX;
constexpr std::size_t longestTarget = BlockCache::blockSize - 1;
constexpr std::size_t longestFastTarget = sizeof(ext2_inode::i_block) - 1;

/// A directory with more subdirectories than a link count can say has the count 1.
void changeDirectoryLinks(Ext4Inode& directory, int change) {
    __u16& links = directory.raw.i_links_count;
    if (change > 0 && links != 1) links = links + 1U > mostLinks ? 1 : links + 1;
    if (change < 0 && links > 2) links--;
}

void checkName(std::string_view name) {
    if (name.empty()) failWith(ENOENT);
    if (name.size() > Ext4Volume::longestName) failWith(ENAMETOOLONG);
}

/// Gives the inode an empty extent tree.
void startExtents(Ext4Inode& inode) {
    ext3_extent_header header{};
    header.eh_magic = ext2fs_cpu_to_le16(EXT3_EXT_MAGIC);
    header.eh_max =
        ext2fs_cpu_to_le16((sizeof inode.raw.i_block - sizeof header) / sizeof(ext3_extent));
    std::memcpy(inode.raw.i_block, &header, sizeof header);
    inode.raw.i_flags |= EXT4_EXTENTS_FL;
}

} // namespace

Directory& Ext4Volume::directory(ext2_ino_t inode) {
    return directories_->get(inode);
}

/// mke2fs and e2fsck need "lost+found"; nobody else should see it while nothing is in it.
bool Ext4Volume::hidden(ext2_ino_t parent, std::string_view name, ext2_ino_t inode) {
    if (parent != root || inode != EXT2_FIRST_INODE(fs_->super) || name != "lost+found")
        return false;
    try {
        return load(inode).isDirectory() && directory(inode).empty();
    } catch (const std::system_error&) {
        return false; // damaged it is shown, and holds up nobody who looks for something else
    }
}

std::optional<ext2_ino_t> Ext4Volume::findVisible(ext2_ino_t parent, std::string_view name) {
    const auto entry = directory(parent).find(name);
    if (!entry) return std::nullopt;
    const ext2_ino_t inode = entry->inode;
    if (hidden(parent, name, inode)) return std::nullopt;
    return inode;
}

ext2_ino_t Ext4Volume::findExisting(ext2_ino_t parent, std::string_view name) {
    checkName(name);
    const auto inode = findVisible(parent, name);
    if (!inode) failWith(ENOENT);
    return *inode;
}

/// A name may be given although the hidden "lost+found" has it: then that one goes.
void Ext4Volume::makeRoomForName(ext2_ino_t parent, std::string_view name) {
    const auto entry = directory(parent).find(name);
    if (!entry) return;
    Ext4Inode old = load(entry->inode);
    dropName(parent, name);
    touchDirectory(parent, -1);
    // Its number stays taken for as long as the volume is open, so that its successor gets another
    // number and is not hidden.
    references_.add(old.number);
    old.raw.i_links_count = 1;
    dropLink(old);
}

std::optional<struct stat> Ext4Volume::lookup(ext2_ino_t parent, std::string_view name) {
    const std::lock_guard lock(mutex_);
    checkName(name);
    const auto inode = findVisible(parent, name);
    if (!inode) return std::nullopt;
    const struct stat attributes = show(load(*inode));
    references_.add(*inode);
    return attributes;
}

void Ext4Volume::readDirectory(ext2_ino_t inode, std::uint64_t from,
                               const std::function<bool(const Directory::Entry&)>& visit) {
    const std::lock_guard lock(mutex_);
    directory(inode).visit(from, [&](const Directory::Entry& entry) {
        if (inode == root && entry.name == "lost+found" && hidden(inode, entry.name, entry.inode))
            return true;
        return visit(entry);
    });
}

void Ext4Volume::addName(ext2_ino_t parent, std::string_view name, const Ext4Inode& target) {
    Ext4Inode self = load(parent);
    directory(parent).add(self, name, target.number, Directory::typeOf(target.mode()));
    const timespec now = Ext4Inodes::now();
    self.setModified(now);
    self.setChanged(now);
    store(self);
}

void Ext4Volume::dropName(ext2_ino_t parent, std::string_view name) {
    directory(parent).remove(name);
    touchDirectory(parent, 0);
}

void Ext4Volume::touchDirectory(ext2_ino_t inode, int linkChange) {
    Ext4Inode self = load(inode);
    const timespec now = Ext4Inodes::now();
    self.setModified(now);
    self.setChanged(now);
    changeDirectoryLinks(self, linkChange);
    store(self);
}

/// Takes one link away (all of them from a directory). An inode that loses its last is freed by
/// `freeUnused`, unless somebody still uses it.
void Ext4Volume::dropLink(Ext4Inode& inode) {
    const timespec now = Ext4Inodes::now();
    inode.setChanged(now);
    inode.raw.i_links_count = inode.isDirectory() ? 0 : inode.raw.i_links_count - 1;
    if (inode.raw.i_links_count > 0) return store(inode);
    orphans_->add(inode);
    nameless_.insert(inode.number);
    if (!references_.has(inode.number)) unused_.push_back(inode.number);
}

/// The end of an operation that drops links: freeing an inode may take several transactions, so it
/// comes when everything else is done.
void Ext4Volume::freeUnused() noexcept {
    for (const ext2_ino_t number : std::exchange(unused_, {})) {
        try {
            freeIfUnused(number);
        } catch (const std::system_error& error) {
            // What was asked for is done. A full disk may have room the next time.
            if (error.code().value() == ENOSPC || error.code().value() == EDQUOT)
                unused_.push_back(number);
            else
                suspect_ = true;
        } catch (const std::exception&) {
            suspect_ = true;
        }
    }
}

Ext4Inode Ext4Volume::makeInode(ext2_ino_t parent, mode_t mode, const Caller& caller) {
    const Ext4Inode directory = load(parent);
    Ext4Inode inode;
    check(ext2fs_new_inode(fs_, parent, static_cast<int>(mode), nullptr, &inode.number));
    ext2fs_inode_alloc_stats2(fs_, inode.number, +1, S_ISDIR(mode) ? 1 : 0);
    transactions_->noteInode(inode.number);
    inode.raw.i_mode = static_cast<__u16>(mode);
    inode.setOwner(caller.user);
    inode.setGroup(caller.group);
    if ((directory.mode() & S_ISGID) != 0) {
        inode.setGroup(directory.group());
        if (S_ISDIR(mode)) inode.raw.i_mode |= S_ISGID;
    }
    inode.raw.i_links_count = S_ISDIR(mode) ? 2 : 1;
    inode.raw.i_extra_isize = sizeof inode.raw - EXT2_GOOD_OLD_INODE_SIZE;
    const timespec now = Ext4Inodes::now();
    inode.setAccessed(now);
    inode.setModified(now);
    inode.setChanged(now);
    inode.setBorn(now);
    if (::getrandom(&inode.raw.i_generation, sizeof inode.raw.i_generation, 0) < 0)
        inode.raw.i_generation = static_cast<__u32>(now.tv_nsec);
    // The whole record is written, so that nothing of a former inode's attributes remains.
    std::vector<char> record(EXT2_INODE_SIZE(fs_->super));
    std::memcpy(record.data(), &inode.raw, sizeof inode.raw);
    const errcode_t code =
        ext2fs_write_inode_full(fs_, inode.number, reinterpret_cast<ext2_inode*>(record.data()),
                                static_cast<int>(record.size()));
    if (code != 0) ext2fs_inode_alloc_stats2(fs_, inode.number, -1, S_ISDIR(mode) ? 1 : 0);
    check(code);
    return inode;
}

void Ext4Volume::writeSymlink(Ext4Inode& inode, std::string_view target) {
    if (target.size() <= longestFastTarget) {
        std::memcpy(inode.raw.i_block, target.data(), target.size());
    } else {
        if (ext2fs_has_feature_extents(fs_->super)) startExtents(inode);
        std::vector<std::byte> block(fs_->blocksize);
        std::memcpy(block.data(), target.data(), target.size());
        if (writeBlocks(inode, 0, block) != block.size()) failWith(ENOSPC);
    }
    inode.raw.i_size = static_cast<__u32>(target.size());
}

std::string Ext4Volume::readLink(ext2_ino_t number) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(number);
    if (!inode.isSymlink()) failWith(EINVAL);
    const std::size_t size = inode.raw.i_size;
    if (ext2fs_is_fast_symlink(inode.base()) != 0) {
        if (size > longestFastTarget) failWith(EUCLEAN);
        return {reinterpret_cast<const char*>(inode.raw.i_block), size};
    }
    if (size > longestTarget) failWith(EUCLEAN);
    std::vector<std::byte> block(fs_->blocksize);
    readMapped(inode, 0, block);
    return {reinterpret_cast<const char*>(block.data()), size};
}

/// What belongs to a new inode besides its attributes: a directory's first block, a link's target.
void Ext4Volume::fillNewInode(Ext4Inode& inode, ext2_ino_t parent, const NewEntry& entry) {
    if (inode.isSymlink()) {
        writeSymlink(inode, entry.symlinkTarget);
    } else if (S_ISCHR(inode.mode()) || S_ISBLK(inode.mode())) {
        inode.setDevice(entry.device);
    } else if (inode.isRegular() || inode.isDirectory()) {
        if (ext2fs_has_feature_extents(fs_->super)) startExtents(inode);
    }
    if (inode.isDirectory()) {
        FileBlocks(fs_, inode).extend(0, 1, [&](const FileBlocks::Run& run) {
            char* block = nullptr;
            check(ext2fs_new_dir_block(fs_, inode.number, parent, &block));
            const errcode_t code =
                ext2fs_write_dir_block4(fs_, run.physical, block, 0, inode.number);
            ext2fs_free_mem(&block);
            check(code);
        });
        Ext4Inodes::setSize(fs_, inode, fs_->blocksize);
    }
    store(inode);
}

struct stat Ext4Volume::create(ext2_ino_t parent, std::string_view name, const NewEntry& entry,
                               const Caller& caller) {
    const std::lock_guard lock(mutex_);
    checkName(name);
    if (S_ISLNK(entry.mode) && entry.symlinkTarget.empty()) failWith(ENOENT);
    if (entry.symlinkTarget.size() > longestTarget) failWith(ENAMETOOLONG);
    if (load(parent).raw.i_links_count == 0) failWith(ENOENT);
    if (findVisible(parent, name)) failWith(EEXIST);
    beginChange();
    makeRoomForName(parent, name);

    Ext4Inode inode = makeInode(parent, entry.mode, caller);
    try {
        fillNewInode(inode, parent, entry);
        if (!inode.isSymlink() && !inheritAcl(parent, inode)) {
            inode.raw.i_mode &= static_cast<__u16>(~(caller.umask & 0777));
            store(inode);
        }
        addName(parent, name, inode);
    } catch (...) {
        // The copy may not know what libext2fs has written.
        Ext4Inode unfinished = load(inode.number);
        unfinished.raw.i_links_count = 0;
        freeInode(unfinished);
        throw;
    }
    if (inode.isDirectory()) touchDirectory(parent, +1);
    references_.add(inode.number);
    freeUnused();
    return show(load(inode.number));
}

struct stat Ext4Volume::link(ext2_ino_t number, ext2_ino_t parent, std::string_view name) {
    const std::lock_guard lock(mutex_);
    checkName(name);
    Ext4Inode inode = load(number);
    if (inode.isDirectory()) failWith(EPERM);
    if (inode.raw.i_links_count == 0 || load(parent).raw.i_links_count == 0) failWith(ENOENT);
    if (inode.raw.i_links_count >= mostLinks) failWith(EMLINK);
    if (findVisible(parent, name)) failWith(EEXIST);
    beginChange();
    makeRoomForName(parent, name);
    addName(parent, name, inode);
    inode.raw.i_links_count++;
    inode.setChanged(Ext4Inodes::now());
    store(inode);
    references_.add(number);
    freeUnused();
    return show(inode);
}

void Ext4Volume::unlink(ext2_ino_t parent, std::string_view name) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(findExisting(parent, name));
    if (inode.isDirectory()) failWith(EISDIR);
    beginChange();
    dropName(parent, name);
    dropLink(inode);
    freeUnused();
}

void Ext4Volume::removeDirectory(ext2_ino_t parent, std::string_view name) {
    const std::lock_guard lock(mutex_);
    Ext4Inode inode = load(findExisting(parent, name));
    if (!inode.isDirectory()) failWith(ENOTDIR);
    if (!directory(inode.number).empty()) failWith(ENOTEMPTY);
    beginChange();
    dropName(parent, name);
    touchDirectory(parent, -1);
    dropLink(inode);
    freeUnused();
}

void Ext4Volume::moveParent(const Ext4Inode& moved, ext2_ino_t from, ext2_ino_t to) {
    if (!moved.isDirectory() || from == to) return;
    directory(moved.number).change("..", to, EXT2_FT_DIR);
    touchDirectory(from, -1);
    touchDirectory(to, +1);
}

void Ext4Volume::replaceTarget(ext2_ino_t newParent, std::string_view newName,
                               const Ext4Inode& moved, Ext4Inode& target) {
    if (target.isDirectory()) {
        if (!moved.isDirectory()) failWith(EISDIR);
        if (!directory(target.number).empty()) failWith(ENOTEMPTY);
    } else if (moved.isDirectory()) {
        failWith(ENOTDIR);
    }
    beginChange();
    directory(newParent).change(newName, moved.number, Directory::typeOf(moved.mode()));
    touchDirectory(newParent, target.isDirectory() ? -1 : 0);
    dropLink(target);
}

void Ext4Volume::rename(ext2_ino_t parent, std::string_view name, ext2_ino_t newParent,
                        std::string_view newName, unsigned flags) {
    const std::lock_guard lock(mutex_);
    checkName(newName);
    if ((flags & ~(RENAME_NOREPLACE | RENAME_EXCHANGE)) != 0) failWith(EINVAL);
    const ext2_ino_t number = findExisting(parent, name);
    if ((flags & RENAME_EXCHANGE) != 0) return exchange(parent, name, newParent, newName);
    const auto target = findVisible(newParent, newName);
    if (target && (flags & RENAME_NOREPLACE) != 0) failWith(EEXIST);
    if (target == number) return;
    if (load(newParent).raw.i_links_count == 0) failWith(ENOENT);

    const Ext4Inode moved = load(number);
    if (target) {
        Ext4Inode old = load(*target);
        replaceTarget(newParent, newName, moved, old);
    } else {
        beginChange();
        makeRoomForName(newParent, newName);
        addName(newParent, newName, moved);
    }
    dropName(parent, name);
    moveParent(moved, parent, newParent);
    stampChange(number);
    freeUnused();
}

void Ext4Volume::exchange(ext2_ino_t parent, std::string_view name, ext2_ino_t newParent,
                          std::string_view newName) {
    const Ext4Inode one = load(findExisting(parent, name));
    const Ext4Inode other = load(findExisting(newParent, newName));
    if (one.number == other.number) return;
    beginChange();
    directory(parent).change(name, other.number, Directory::typeOf(other.mode()));
    directory(newParent).change(newName, one.number, Directory::typeOf(one.mode()));
    moveParent(one, parent, newParent);
    moveParent(other, newParent, parent);
    touchDirectory(parent, 0);
    touchDirectory(newParent, 0);
    stampChange(one.number);
    stampChange(other.number);
}

void Ext4Volume::freeInode(Ext4Inode& inode) {
    directories_->drop(inode.number);
    check(ext2fs_free_ext_attr(fs_, inode.number, &inode.raw));
    if (ext2fs_inode_has_valid_blocks2(fs_, inode.base()) != 0)
        releaseBlocks(inode, 0, FileBlocks::lastBlock);
    orphans_->remove(inode);
    inode.raw.i_dtime = static_cast<__u32>(Ext4Inodes::now().tv_sec);
    store(inode);
    ext2fs_inode_alloc_stats2(fs_, inode.number, -1, inode.isDirectory() ? 1 : 0);
    transactions_->noteInode(inode.number);
    nameless_.erase(inode.number);
    unsyncedContents_.erase(inode.number);
    lostContents_.erase(inode.number);
}
