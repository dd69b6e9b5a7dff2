#include "Ext4Volume.h"

#include "Ext2Error.h"
#include "Ext2Io.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

constexpr const char* nameAttribute = "trusted.quillvane.name";

/// What the code here understands of an ext4's features that change how it is written.
constexpr __u32 knownIncompatible =
    EXT2_FEATURE_INCOMPAT_FILETYPE | EXT3_FEATURE_INCOMPAT_RECOVER | EXT2_FEATURE_INCOMPAT_META_BG |
    EXT3_FEATURE_INCOMPAT_EXTENTS | EXT4_FEATURE_INCOMPAT_64BIT | EXT4_FEATURE_INCOMPAT_FLEX_BG |
    EXT4_FEATURE_INCOMPAT_CSUM_SEED | EXT4_FEATURE_INCOMPAT_LARGEDIR;
constexpr __u32 knownReadOnlyCompatible =
    EXT2_FEATURE_RO_COMPAT_SPARSE_SUPER | EXT2_FEATURE_RO_COMPAT_LARGE_FILE |
    EXT4_FEATURE_RO_COMPAT_HUGE_FILE | EXT4_FEATURE_RO_COMPAT_GDT_CSUM |
    EXT4_FEATURE_RO_COMPAT_DIR_NLINK | EXT4_FEATURE_RO_COMPAT_EXTRA_ISIZE |
    EXT4_FEATURE_RO_COMPAT_METADATA_CSUM;

/// Failures of the disk stay what they are; all other codes mean that the volume makes no sense.
void checkStructure(errcode_t code, const char* what) {
    if (code == 0) return;
    const int error = errnoOf(code);
    if (code < 1024 || error == ENOMEM)
        throw std::system_error(error, std::generic_category(), what);
    throw VolumeCorrupt(std::string(what) + ": " + error_message(code));
}

void checkFeatures(ext2_filsys fs) {
    const ext2_super_block& super = *fs->super;
    if ((super.s_feature_incompat & ~knownIncompatible) != 0 ||
        (super.s_feature_ro_compat & ~knownReadOnlyCompatible) != 0)
        throw VolumeCorrupt("the volume uses features that are not supported");
    if (fs->blocksize != BlockCache::blockSize)
        throw VolumeCorrupt("the volume's blocks are not of 4096 bytes");
    // Smaller inodes have no room for nanoseconds and times of creation.
    if (EXT2_INODE_SIZE(fs->super) < 256)
        throw VolumeCorrupt("the volume's inodes are smaller than 256 bytes");
}

} // namespace

bool Ext4Volume::needsCheck(EncryptedImage& image) {
    BlockCache cache(image);
    ext2_filsys fs = nullptr;
    const errcode_t code = Ext2Io::open(cache, EXT2_FLAG_64BITS, &fs);
    if (code == EXT2_ET_SB_CSUM_INVALID) return true; // torn by a crash; e2fsck has spare copies
    checkStructure(code, "opening the volume");
    const bool needed =
        (fs->super->s_state & EXT2_VALID_FS) == 0 || (fs->super->s_state & EXT2_ERROR_FS) != 0 ||
        ext2fs_has_feature_journal_needs_recovery(fs->super) != 0 || fs->super->s_last_orphan != 0;
    ext2fs_free(fs);
    return needed;
}

Ext4Volume::Ext4Volume(EncryptedImage& image, bool readOnly)
    : image_(image), readOnly_(readOnly), cache_(image) {}

std::unique_ptr<Ext4Volume> Ext4Volume::open(EncryptedImage& image, bool readOnly) {
    std::unique_ptr<Ext4Volume> volume(new Ext4Volume(image, readOnly));
    const int access = readOnly ? 0 : EXT2_FLAG_RW;
    checkStructure(Ext2Io::open(volume->cache_, EXT2_FLAG_64BITS | access, &volume->fs_),
                   "opening the volume");
    ext2_filsys fs = volume->fs_;
    checkFeatures(fs);
    if (ext2fs_blocks_count(fs->super) > image.blockCount())
        throw VolumeCorrupt("the volume is larger than its image");
    checkStructure(ext2fs_check_desc(fs), "checking the group descriptors");
    checkStructure(ext2fs_read_bitmaps(fs), "reading the bitmaps");
    // The spare copies of the superblock change only when the volume's shape does.
    fs->flags |= EXT2_FLAG_MASTER_SB_ONLY;
    volume->directories_ = std::make_unique<DirectoryCache>(fs);
    volume->overhead_ = volume->overheadBlocks();
    return volume;
}

Ext4Volume::~Ext4Volume() {
    if (fs_ == nullptr) return;
    try {
        if (directories_) close();
    } catch (const std::exception&) {
        // Whoever wanted to know has called close() before.
    }
    if (fs_ != nullptr) ext2fs_free(fs_);
}

void Ext4Volume::close() {
    const std::lock_guard lock(mutex_);
    if (fs_ == nullptr) return;
    for (const ext2_ino_t number : std::vector(nameless_.begin(), nameless_.end())) {
        try {
            Ext4Inode inode = load(number);
            freeInode(inode);
        } catch (const std::exception&) {
            suspect_ = true; // everything else is more important
        }
    }
    nameless_.clear();
    if (marked_) {
        flushStructure();
        image_.sync();
        fs_->super->s_state |= EXT2_VALID_FS;
        if (suspect_) fs_->super->s_state |= EXT2_ERROR_FS;
        ext2fs_mark_super_dirty(fs_);
        try {
            flushStructure();
            image_.sync();
        } catch (...) {
            // Still open, so still to be marked as in use before the next change.
            fs_->super->s_state &= static_cast<__u16>(~EXT2_VALID_FS);
            ext2fs_mark_super_dirty(fs_);
            throw;
        }
    }
    ext2fs_free(fs_);
    fs_ = nullptr;
}

/// Before the first change the volume is marked as in use, so that a crash is seen as one.
void Ext4Volume::beginChange() {
    if (readOnly_) failWith(EROFS);
    if (cache_.full()) cache_.flush();
    if (!marked_) {
        reserveBitmaps();
        fs_->super->s_state &= static_cast<__u16>(~EXT2_VALID_FS);
        fs_->super->s_mtime = static_cast<__u32>(::time(nullptr));
        fs_->super->s_mnt_count++;
        ext2fs_mark_super_dirty(fs_);
        flushStructure();
        image_.sync();
        marked_ = true;
    }
    unsynced_ = true;
}

/// The bitmaps are changed only when they are flushed, and the disk may be full by then.
void Ext4Volume::reserveBitmaps() {
    std::vector<blk64_t> blocks;
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        blocks.push_back(ext2fs_block_bitmap_loc(fs_, group));
        blocks.push_back(ext2fs_inode_bitmap_loc(fs_, group));
    }
    std::sort(blocks.begin(), blocks.end());
    for (std::size_t first = 0; first < blocks.size();) {
        std::size_t last = first + 1;
        while (last < blocks.size() && blocks[last] == blocks[last - 1] + 1) ++last;
        image_.reserve(blocks[first], last - first);
        first = last;
    }
}

void Ext4Volume::noteFailure(int error) {
    const std::lock_guard lock(mutex_);
    if (error == EIO || error == EUCLEAN || error == ENOMEM) suspect_ = true;
}

void Ext4Volume::flushStructure() {
    check(ext2fs_flush(fs_));
    cache_.flush();
}

void Ext4Volume::sync() {
    const std::lock_guard lock(mutex_);
    if (!unsynced_) return;
    flushStructure();
    image_.sync();
    unsynced_ = false;
}

void Ext4Volume::syncFile(ext2_ino_t) {
    // Without a journal a file is reachable after a crash only if the structure above it is whole.
    sync();
}

bool Ext4Volume::dirty() {
    const std::lock_guard lock(mutex_);
    return unsynced_;
}

std::string Ext4Volume::name() {
    const std::lock_guard lock(mutex_);
    if (const auto value = readAttribute(load(root), nameAttribute))
        return {reinterpret_cast<const char*>(value->data()), value->size()};
    const auto* label = reinterpret_cast<const char*>(fs_->super->s_volume_name);
    return {label, ::strnlen(label, sizeof fs_->super->s_volume_name)};
}

void Ext4Volume::setName(std::string_view name) {
    const std::lock_guard lock(mutex_);
    beginChange();
    writeAttribute(load(root), nameAttribute, std::as_bytes(std::span(name)));
}

/// The blocks that the file system's own structure takes, whatever is stored in it.
std::uint64_t Ext4Volume::overheadBlocks() {
    const bool scattered = ext2fs_has_feature_meta_bg(fs_->super) != 0;
    const std::uint64_t descriptors =
        scattered ? 1 : fs_->desc_blocks + fs_->super->s_reserved_gdt_blocks;
    constexpr unsigned bitmaps = 2;
    std::uint64_t blocks = 0;
    for (dgrp_t group = 0; group < fs_->group_desc_count; ++group) {
        blocks += bitmaps + fs_->inode_blocks_per_group;
        if (ext2fs_bg_has_super(fs_, group) != 0) blocks += 1 + descriptors;
    }
    if (ext2fs_has_feature_journal(fs_->super) && fs_->super->s_journal_inum != 0)
        blocks += load(fs_->super->s_journal_inum).size() / fs_->blocksize;
    return std::min<std::uint64_t>(blocks, ext2fs_blocks_count(fs_->super));
}

struct statvfs Ext4Volume::statistics() {
    const std::lock_guard lock(mutex_);
    struct statvfs disk {};
    if (::fstatvfs(image_.fd(), &disk) != 0) failWith(errno);
    const std::uint64_t onDisk =
        static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize / fs_->blocksize;
    struct statvfs result {};
    result.f_bsize = fs_->blocksize;
    result.f_frsize = fs_->blocksize;
    result.f_blocks = ext2fs_blocks_count(fs_->super) - overhead_;
    result.f_bfree = ext2fs_free_blocks_count(fs_->super);
    // The image is sparse: never promise what the disk beneath does not have.
    result.f_bavail = std::min<std::uint64_t>(result.f_bfree, onDisk);
    result.f_files = fs_->super->s_inodes_count;
    result.f_ffree = fs_->super->s_free_inodes_count;
    result.f_favail = result.f_ffree;
    result.f_namemax = longestName;
    return result;
}

struct stat Ext4Volume::reference(ext2_ino_t inode) {
    const std::lock_guard lock(mutex_);
    const struct stat attributes = load(inode).attributes();
    references_[inode]++;
    return attributes;
}

void Ext4Volume::forget(ext2_ino_t inode, std::uint64_t references) {
    const std::lock_guard lock(mutex_);
    const auto found = references_.find(inode);
    if (found == references_.end()) return;
    found->second -= std::min(found->second, references);
    if (found->second == 0) references_.erase(found);
    freeIfUnused(inode);
}

void Ext4Volume::freeIfUnused(ext2_ino_t number) {
    if (references_.contains(number) || !nameless_.contains(number)) return;
    Ext4Inode inode = load(number);
    freeInode(inode);
}

struct stat Ext4Volume::attributes(ext2_ino_t inode) {
    const std::lock_guard lock(mutex_);
    return load(inode).attributes();
}

std::uint64_t Ext4Volume::generation(ext2_ino_t inode) {
    const std::lock_guard lock(mutex_);
    return load(inode).raw.i_generation;
}
