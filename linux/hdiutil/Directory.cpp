#include "Directory.h"

#include "Ext2Error.h"
#include "FileBlocks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>

namespace {

constexpr std::size_t nothingLoaded = std::numeric_limits<std::size_t>::max();
constexpr std::size_t tailSize = sizeof(ext2_dir_entry_tail);
constexpr std::size_t smallestEntry = 12;

std::uint32_t hashOf(std::string_view name) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(name));
}

std::size_t sizeFor(std::size_t nameLength) {
    return (8 + nameLength + 3) & ~std::size_t{3};
}

std::size_t lengthOf(const ext2_dir_entry& entry) {
    return entry.rec_len;
}

std::string_view nameOf(const ext2_dir_entry& entry) {
    return {entry.name, static_cast<std::size_t>(ext2fs_dirent_name_len(&entry))};
}

/// Bytes of the entry that are free for another one.
std::size_t roomIn(const ext2_dir_entry& entry) {
    const std::size_t used = entry.inode == 0 ? 0 : sizeFor(nameOf(entry).size());
    return lengthOf(entry) - used;
}

void fill(ext2_dir_entry& entry, std::size_t length, std::string_view name, ext2_ino_t inode,
          int type) {
    entry.inode = inode;
    entry.rec_len = static_cast<__u16>(length);
    ext2fs_dirent_set_name_len(&entry, static_cast<int>(name.size()));
    ext2fs_dirent_set_file_type(&entry, type);
    std::memcpy(entry.name, name.data(), name.size());
}

} // namespace

int Directory::typeOf(mode_t mode) noexcept {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return EXT2_FT_REG_FILE;
    case S_IFDIR:
        return EXT2_FT_DIR;
    case S_IFCHR:
        return EXT2_FT_CHRDEV;
    case S_IFBLK:
        return EXT2_FT_BLKDEV;
    case S_IFIFO:
        return EXT2_FT_FIFO;
    case S_IFSOCK:
        return EXT2_FT_SOCK;
    case S_IFLNK:
        return EXT2_FT_SYMLINK;
    default:
        return EXT2_FT_UNKNOWN;
    }
}

Directory::Directory(ext2_filsys fs, ext2_ino_t number)
    : fs_(fs), number_(number), buffer_(fs->blocksize), loaded_(nothingLoaded) {
    Ext4Inode self = Ext4Inodes::load(fs, number);
    if (!self.isDirectory()) failWith(ENOTDIR);
    const std::uint64_t count = self.size() / fs->blocksize;
    if (count > ext2fs_blocks_count(fs->super)) failWith(EUCLEAN);
    FileBlocks map(fs, self);
    blocks_.reserve(count);
    while (blocks_.size() < count) {
        const FileBlocks::Run run = map.find(blocks_.size(), count - blocks_.size());
        if (run.kind != FileBlocks::Kind::data) failWith(EUCLEAN);
        for (std::uint64_t i = 0; i < run.count; ++i) blocks_.push_back({run.physical + i, 0});
    }
    for (std::size_t block = 0; block < blocks_.size(); ++block) indexBlock(block);
}

/// Entries end before the checksum that closes a block.
std::size_t Directory::usableBytes() const noexcept {
    return fs_->blocksize - (ext2fs_has_feature_metadata_csum(fs_->super) ? tailSize : 0);
}

void Directory::loadBlock(std::size_t block) {
    if (loaded_ == block) return;
    loaded_ = nothingLoaded;
    check(ext2fs_read_dir_block4(fs_, blocks_[block].physical, buffer_.data(), 0, number_));
    loaded_ = block;
}

/// After a failure the buffer holds what the volume does not, so it is loaded anew.
void Directory::storeBlock(std::size_t block) {
    loaded_ = nothingLoaded;
    check(ext2fs_write_dir_block4(fs_, blocks_[block].physical, buffer_.data(), 0, number_));
    loaded_ = block;
}

ext2_dir_entry& Directory::entryAt(std::size_t offset) {
    return *reinterpret_cast<ext2_dir_entry*>(buffer_.data() + offset);
}

/// Checks the entry at `offset` before anything follows its lengths.
std::size_t Directory::nextOffset(std::size_t offset) {
    const std::size_t end = fs_->blocksize;
    if (end - offset < 8) failWith(EUCLEAN);
    const ext2_dir_entry& entry = entryAt(offset);
    const std::size_t length = lengthOf(entry);
    if (length < smallestEntry || length % 4 != 0 || length > end - offset ||
        sizeFor(nameOf(entry).size()) > length)
        failWith(EUCLEAN);
    return offset + length;
}

void Directory::indexBlock(std::size_t block) {
    loadBlock(block);
    std::size_t room = 0;
    for (std::size_t at = 0, next = 0; at < usableBytes(); at = next) {
        next = nextOffset(at);
        const ext2_dir_entry& entry = entryAt(at);
        if (entry.inode != 0) names_.emplace(hashOf(nameOf(entry)), block * fs_->blocksize + at);
        room = std::max(room, roomIn(entry));
    }
    blocks_[block].room = static_cast<std::uint16_t>(room);
}

std::optional<std::uint64_t> Directory::locate(std::string_view name) {
    const auto [first, last] = names_.equal_range(hashOf(name));
    for (auto at = first; at != last; ++at) {
        loadBlock(at->second / fs_->blocksize);
        if (nameOf(entryAt(at->second % fs_->blocksize)) == name) return at->second;
    }
    return std::nullopt;
}

std::optional<Directory::Entry> Directory::find(std::string_view name) {
    const auto place = locate(name);
    if (!place) return std::nullopt;
    const std::size_t offset = *place % fs_->blocksize;
    const ext2_dir_entry& entry = entryAt(offset);
    return Entry{entry.inode, ext2fs_dirent_file_type(&entry), nameOf(entry),
                 *place + lengthOf(entry)};
}

void Directory::add(Ext4Inode& self, std::string_view name, ext2_ino_t inode, int type) {
    if ((self.raw.i_flags & EXT2_INDEX_FL) != 0) giveUpHashTree(self);
    const std::size_t needed = sizeFor(name.size());
    bool searchedAll = true;
    for (std::size_t block = roomHint_; block < blocks_.size(); ++block) {
        if (blocks_[block].room >= needed && insertIn(block, name, inode, type)) return;
        // Blocks that cannot even take a short name are never looked at again until one is freed.
        if (searchedAll && blocks_[block].room < 2 * smallestEntry)
            roomHint_ = block + 1;
        else
            searchedAll = false;
    }
    appendBlock(self);
    if (!insertIn(blocks_.size() - 1, name, inode, type)) failWith(EUCLEAN);
}

bool Directory::insertIn(std::size_t block, std::string_view name, ext2_ino_t inode, int type) {
    loadBlock(block);
    const std::size_t needed = sizeFor(name.size());
    std::size_t place = fs_->blocksize;
    std::size_t room = 0;
    for (std::size_t at = 0, next = 0; at < usableBytes(); at = next) {
        next = nextOffset(at);
        ext2_dir_entry& entry = entryAt(at);
        if (place < fs_->blocksize || roomIn(entry) < needed) {
            room = std::max(room, roomIn(entry));
            continue;
        }
        const std::size_t used = lengthOf(entry) - roomIn(entry);
        const std::size_t length = lengthOf(entry) - used;
        if (used > 0) entry.rec_len = static_cast<__u16>(used);
        place = at + used;
        fill(entryAt(place), length, name, inode, type);
        room = std::max(room, roomIn(entryAt(place)));
    }
    if (place == fs_->blocksize) return false;
    storeBlock(block);
    blocks_[block].room = static_cast<std::uint16_t>(room);
    names_.emplace(hashOf(name), block * fs_->blocksize + place);
    return true;
}

void Directory::appendBlock(Ext4Inode& self) {
    loaded_ = nothingLoaded;
    std::fill(buffer_.begin(), buffer_.end(), '\0');
    entryAt(0).rec_len = static_cast<__u16>(usableBytes());
    if (usableBytes() < fs_->blocksize)
        ext2fs_initialize_dirent_tail(fs_, EXT2_DIRENT_TAIL(buffer_.data(), fs_->blocksize));
    FileBlocks map(fs_, self);
    const auto added = map.extend(blocks_.size(), 1, [&](const FileBlocks::Run& run) {
        check(ext2fs_write_dir_block4(fs_, run.physical, buffer_.data(), 0, number_));
    });
    blocks_.push_back({added.physical, static_cast<std::uint16_t>(usableBytes())});
    Ext4Inodes::setSize(fs_, self, blocks_.size() * fs_->blocksize);
    Ext4Inodes::store(fs_, self);
}

/// The inner nodes of the tree hide behind entries that look empty; made into real leaf blocks, the
/// whole is a plain directory.
void Directory::giveUpHashTree(Ext4Inode& self) {
    self.raw.i_flags &= ~static_cast<__u32>(EXT2_INDEX_FL);
    Ext4Inodes::store(fs_, self);
    for (std::size_t block = 0; block < blocks_.size(); ++block) {
        loadBlock(block);
        std::size_t keep = 0;
        if (block == 0) {
            keep = nextOffset(0);
        } else if (entryAt(0).inode != 0 || lengthOf(entryAt(0)) != fs_->blocksize) {
            continue; // a leaf
        }
        if (keep >= usableBytes() || nextOffset(keep) < usableBytes()) failWith(EUCLEAN);
        ext2_dir_entry& last = entryAt(keep);
        const std::size_t used = last.inode == 0 ? 8 : 8 + nameOf(last).size();
        std::fill(buffer_.begin() + static_cast<std::ptrdiff_t>(keep + used), buffer_.end(), '\0');
        last.rec_len = static_cast<__u16>(usableBytes() - keep);
        if (usableBytes() < fs_->blocksize)
            ext2fs_initialize_dirent_tail(fs_, EXT2_DIRENT_TAIL(buffer_.data(), fs_->blocksize));
        storeBlock(block);
        blocks_[block].room = static_cast<std::uint16_t>(roomIn(last));
    }
}

void Directory::remove(std::string_view name) {
    const auto place = locate(name);
    if (!place) failWith(ENOENT);
    const std::size_t block = *place / fs_->blocksize;
    const std::size_t offset = *place % fs_->blocksize;
    loadBlock(block);
    std::size_t previous = 0;
    for (std::size_t at = 0; at < offset; at = nextOffset(at)) previous = at;
    ext2_dir_entry& gone = entryAt(offset);
    gone.inode = 0;
    ext2_dir_entry& widened = offset == 0 ? gone : entryAt(previous);
    if (offset != 0) widened.rec_len = static_cast<__u16>(lengthOf(widened) + lengthOf(gone));
    storeBlock(block);
    blocks_[block].room =
        static_cast<std::uint16_t>(std::max<std::size_t>(blocks_[block].room, roomIn(widened)));
    roomHint_ = std::min(roomHint_, block);
    const auto [first, last] = names_.equal_range(hashOf(name));
    names_.erase(
        std::find_if(first, last, [&](const auto& item) { return item.second == *place; }));
}

void Directory::change(std::string_view name, ext2_ino_t inode, int type) {
    const auto place = locate(name);
    if (!place) failWith(ENOENT);
    ext2_dir_entry& entry = entryAt(*place % fs_->blocksize);
    entry.inode = inode;
    ext2fs_dirent_set_file_type(&entry, type);
    storeBlock(*place / fs_->blocksize);
}

void Directory::visit(std::uint64_t from, const std::function<bool(const Entry&)>& visit) {
    for (std::size_t block = from / fs_->blocksize; block < blocks_.size(); ++block) {
        for (std::size_t at = 0, next = 0; at < usableBytes(); at = next) {
            loadBlock(block); // `visit` may have used this directory
            next = nextOffset(at);
            const std::uint64_t place = block * fs_->blocksize + at;
            const ext2_dir_entry& entry = entryAt(at);
            if (entry.inode == 0 || place < from) continue;
            const std::uint64_t after = next >= usableBytes() ? (block + 1) * fs_->blocksize
                                                              : block * fs_->blocksize + next;
            if (!visit({entry.inode, ext2fs_dirent_file_type(&entry), nameOf(entry), after}))
                return;
        }
    }
}

Directory& DirectoryCache::get(ext2_ino_t number) {
    if (const auto found = index_.find(number); found != index_.end()) {
        recent_.splice(recent_.begin(), recent_, found->second);
        return found->second->second;
    }
    recent_.emplace_front(std::piecewise_construct, std::forward_as_tuple(number),
                          std::forward_as_tuple(fs_, number));
    index_.emplace(number, recent_.begin());
    std::size_t names = 0;
    for (const auto& [_, directory] : recent_) names += directory.size();
    while (recent_.size() > 2 && (names > maximumNames || recent_.size() > maximumDirectories)) {
        names -= recent_.back().second.size();
        index_.erase(recent_.back().first);
        recent_.pop_back();
    }
    return recent_.front().second;
}

void DirectoryCache::drop(ext2_ino_t number) {
    const auto found = index_.find(number);
    if (found == index_.end()) return;
    recent_.erase(found->second);
    index_.erase(found);
}
