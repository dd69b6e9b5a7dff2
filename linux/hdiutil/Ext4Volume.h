#pragma once

#include "BlockCache.h"
#include "Caller.h"
#include "Directory.h"
#include "Ext4Inode.h"
#include "FileBlocks.h"
#include "InodeReferences.h"
#include "OrphanList.h"
#include "Transactions.h"
#include "VolumeError.h"
#include "VolumeGrowth.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

/// An ext4 file system on an encrypted image, with the operations that a mounted one needs.
///
/// Inodes are named by their ext4 number. Any thread may call any operation. They hold the volume's
/// one lock, but not while contents are read and decrypted. They fail with `std::system_error`,
/// whose code is the errno for the caller of the system call. Names are bytes, at most 255 of them.
///
/// File contents reach the image before `write` returns, but those of new blocks may wait in the
/// device until the next sync; structure goes through the volume's
/// journal, by `sync`, `syncFile` and `close`. Each operation happens wholly or not at all,
/// whatever the moment of a crash; but one that frees or reserves very much may happen in part, and
/// so may the writing of contents. After a crash the journal has to be replayed, and `needsCheck`
/// says so. A volume without a journal needs to be checked then.
class Ext4Volume {
public:
    /// What `setAttributes` is to change; what is absent stays.
    struct Changes {
        std::optional<mode_t> mode;
        std::optional<uid_t> owner;
        std::optional<gid_t> group;
        std::optional<std::uint64_t> size;
        std::optional<timespec> accessed;
        std::optional<timespec> modified;
    };
    struct NewEntry {
        mode_t mode = 0; ///< type and permissions, before umask and default ACL
        dev_t device = 0;
        std::string_view symlinkTarget;
    };

    /// The number of the root directory.
    static constexpr ext2_ino_t root = EXT2_ROOT_INO;
    static constexpr std::size_t longestName = EXT2_NAME_LEN;

    /// Whether the volume was not closed, has a journal to replay or says that it is to be checked.
    /// Looks at the superblock alone. Throws like `open`.
    static bool needsCheck(BlockDevice& device);
    /// `device` must outlive the volume, whose structure is looked at as `VolumeVerifier` does;
    /// nothing is written. Throws `VolumeCorrupt`, `VolumeNotSupported`, or
    /// `std::system_error` on I/O.
    static std::unique_ptr<Ext4Volume> open(BlockDevice& device, bool readOnly);
    /// Closes as well as it can without a report; call `close` first.
    ~Ext4Volume();
    Ext4Volume(const Ext4Volume&) = delete;
    Ext4Volume& operator=(const Ext4Volume&) = delete;

    /// Writes everything, marks the volume clean and ends it. After a failure the volume stays open
    /// with nothing lost, and `close` may be called again. The last call on a volume that succeeds.
    void close();
    /// Whether contents may have been lost since `sync` last told so, although a later attempt to
    /// sync or close succeeded.
    bool lostContents();
    /// Returns when everything is on the disk. After a failure nothing is known to be. Fails once,
    /// too, when contents may have been lost because the disk failed since the last call.
    void sync();
    /// As `sync`, if there is anything to do, and holds others up for a shorter time. Then gives
    /// room that has become free back to the disk, for a second at most.
    void writeBehind();
    /// To be told of each operation's failure: after those that can leave a change half-way the
    /// volume is closed as one that `needsCheck`.
    void noteFailure(int error);
    bool readOnly() const noexcept { return readOnly_; }

    /// The volume's name in full; an ext4 label holds only its first 16 bytes.
    std::string name();
    void setName(std::string_view name);
    /// What is free is what the disk beneath can still take. Where it is more than the volume has
    /// room for, the volume grows by itself, if it is one of those that can.
    struct statvfs statistics();

    /// What `lookup`, `create` and `link` answer is referenced once more by the caller, as is what
    /// `reference` names, until `forget` gives the references back. An inode that has lost its last
    /// name is freed with its last reference.
    std::optional<struct stat> lookup(ext2_ino_t parent, std::string_view name);
    struct stat reference(ext2_ino_t inode);
    void forget(ext2_ino_t inode, std::uint64_t references);
    /// Tells apart the inodes that bear one number one after the other.
    std::uint64_t generation(ext2_ino_t inode);

    /// `tell` is called, on any thread and with the volume locked, when a file has lost bits as
    /// described at `setAttributes`. To be set before the volume is used.
    void whenBitsAreLost(std::function<void(ext2_ino_t)> tell) { bitsLost_ = std::move(tell); }

    struct stat attributes(ext2_ino_t inode);
    /// A file that is written to, truncated, or given another owner loses its set-user-id and
    /// set-group-id bits and its capabilities as on the kernel's file systems: when it is written
    /// to or truncated, it keeps the bits if the `caller` has the privilege, and it always keeps a
    /// set-group-id bit that lets nobody execute if the caller acts for its group.
    struct stat setAttributes(ext2_ino_t inode, const Changes& changes, const Caller& caller = {});
    std::string readLink(ext2_ino_t inode);

    struct stat create(ext2_ino_t parent, std::string_view name, const NewEntry& entry,
                       const Caller& caller);
    struct stat link(ext2_ino_t inode, ext2_ino_t parent, std::string_view name);
    void unlink(ext2_ino_t parent, std::string_view name);
    void removeDirectory(ext2_ino_t parent, std::string_view name);
    /// `flags` are 0, RENAME_NOREPLACE or RENAME_EXCHANGE.
    void rename(ext2_ino_t parent, std::string_view name, ext2_ino_t newParent,
                std::string_view newName, unsigned flags);
    /// As `Directory::visit`; an empty "lost+found" of the root is left out.
    void readDirectory(ext2_ino_t inode, std::uint64_t from,
                       const std::function<bool(const Directory::Entry&)>& visit);

    /// Reads at most `into.size()` bytes; fewer only at the end of the file.
    std::size_t read(ext2_ino_t inode, std::uint64_t offset, std::span<std::byte> into);
    /// Answers how many bytes were written; fewer than asked when the disk fills up in the middle.
    /// For `caller` see `setAttributes`.
    std::size_t write(ext2_ino_t inode, std::uint64_t offset, std::span<const std::byte> from,
                      const Caller& caller = {});
    /// `mode` is that of fallocate(2): 0, KEEP_SIZE, PUNCH_HOLE, ZERO_RANGE; others EOPNOTSUPP.
    /// For `caller` see `setAttributes`.
    void allocate(ext2_ino_t inode, int mode, std::uint64_t offset, std::uint64_t length,
                  const Caller& caller = {});
    /// SEEK_DATA or SEEK_HOLE; ENXIO beyond the end.
    std::uint64_t seek(ext2_ino_t inode, std::uint64_t offset, int whence);
    /// Returns when the file's contents and attributes are on the disk. Fails once, for each file,
    /// when contents may have been lost because the disk failed since it was last synced.
    void syncFile(ext2_ino_t inode);
    /// Whether so much is to be synced that a sync lets others go on meanwhile. Any thread.
    bool syncTakesLong() const noexcept;

    /// ENODATA when there is no such attribute.
    std::vector<std::byte> attribute(ext2_ino_t inode, const std::string& name);
    /// Each name with a closing NUL. Names of the "trusted" kind are for the privileged only.
    std::string attributeNames(ext2_ino_t inode, bool privileged);
    /// `flags` are 0, XATTR_CREATE or XATTR_REPLACE. For `caller`, who sets an access list, see
    /// `setAttributes`.
    void setAttribute(ext2_ino_t inode, const std::string& name, std::span<const std::byte> value,
                      int flags, const Caller& caller = {});
    void removeAttribute(ext2_ino_t inode, const std::string& name);

private:
    struct AttributeHandleDeleter {
        void operator()(ext2_xattr_handle* handle) const { ext2fs_xattrs_close(&handle); }
    };
    using AttributeHandle = std::unique_ptr<ext2_xattr_handle, AttributeHandleDeleter>;

    Ext4Volume(BlockDevice& device, bool readOnly);

    void writeChangesBehind();
    void giveRoomBack();

    // All below expect the lock to be held.
    void prepare();
    /// `neededBlocks` is what the change takes besides a few.
    void beginChange(std::uint64_t neededBlocks = 0);
    void commitWhen(bool needed);
    void commit();
    void syncAll();
    void syncContents();
    void contentsMayBeLost();
    /// Returns when nobody reads contents who began with what was true before.
    void awaitReaders() { const std::lock_guard none(reading_); }
    bool lacksRoom(std::uint64_t neededBlocks) const;
    void makeRoom(std::uint64_t neededBlocks);
    void helpFullDisk(std::uint64_t neededBlocks);
    bool grow(std::uint64_t neededBlocks);
    void giveRoomBackAtTheEnd() noexcept;
    std::uint64_t overheadBlocks();
    std::uint64_t backedFreeBlocks();
    std::uint64_t writableBlocks();

    Ext4Inode load(ext2_ino_t inode) { return Ext4Inodes::load(fs_, inode); }
    void store(Ext4Inode& inode) { Ext4Inodes::store(fs_, inode); }
    Directory& directory(ext2_ino_t inode);
    bool hidden(ext2_ino_t parent, std::string_view name, ext2_ino_t inode);
    std::optional<ext2_ino_t> findVisible(ext2_ino_t parent, std::string_view name);
    ext2_ino_t findExisting(ext2_ino_t parent, std::string_view name);
    void makeRoomForName(ext2_ino_t parent, std::string_view name);
    void addName(ext2_ino_t parent, std::string_view name, const Ext4Inode& target);
    void touchDirectory(ext2_ino_t inode, int linkChange);
    void dropName(ext2_ino_t parent, std::string_view name);
    void dropLink(Ext4Inode& inode);
    void replaceTarget(ext2_ino_t newParent, std::string_view newName, const Ext4Inode& moved,
                       Ext4Inode& target);
    void exchange(ext2_ino_t parent, std::string_view name, ext2_ino_t newParent,
                  std::string_view newName);
    void moveParent(const Ext4Inode& moved, ext2_ino_t from, ext2_ino_t to);

    Ext4Inode makeInode(ext2_ino_t parent, mode_t mode, const Caller& caller);
    void fillNewInode(Ext4Inode& inode, ext2_ino_t parent, const NewEntry& entry);
    void writeSymlink(Ext4Inode& inode, std::string_view target);
    void freeInode(Ext4Inode& inode);
    void freeIfUnused(ext2_ino_t inode);
    void freeUnused() noexcept;

    std::vector<FileBlocks::Run> mapBlocks(Ext4Inode& inode, std::uint64_t firstBlock,
                                           std::uint64_t count);
    void readRuns(std::span<const FileBlocks::Run> runs, std::span<std::byte> into);
    void readMapped(Ext4Inode& inode, std::uint64_t firstBlock, std::span<std::byte> into);
    std::size_t writeBlocks(Ext4Inode& inode, std::uint64_t firstBlock,
                            std::span<const std::byte> from);
    std::size_t writeRun(FileBlocks& map, std::uint64_t block, std::span<const std::byte> from);
    void writeThrough(FileBlocks::Kind former, std::uint64_t physical,
                      std::span<const std::byte> from);
    void zeroWithin(Ext4Inode& inode, std::uint64_t from, std::uint64_t to);
    void truncate(Ext4Inode& inode, std::uint64_t size);
    void releaseBlocks(Ext4Inode& inode, std::uint64_t first, std::uint64_t last);
    bool loseBits(Ext4Inode& inode, const Caller& caller, bool ownerChanges);
    bool loseBits(Ext4Inode& inode, const Caller& caller, const Changes& changes);
    void loseCapabilities(Ext4Inode& inode);
    void stampWrite(Ext4Inode& inode, bool unseen);
    /// What somebody is told of the inode.
    struct stat show(const Ext4Inode& inode);
    void punchRange(Ext4Inode& inode, std::uint64_t offset, std::uint64_t end);
    std::uint64_t holesIn(Ext4Inode& inode, std::uint64_t offset, std::uint64_t end);
    void reserveRange(Ext4Inode& inode, std::uint64_t offset, std::uint64_t end);

    AttributeHandle openAttributes(const Ext4Inode& inode);
    bool mayHaveAttributes(const Ext4Inode& inode);
    std::optional<std::vector<std::byte>> readAttribute(const Ext4Inode& inode,
                                                        const std::string& name);
    void writeAttribute(const Ext4Inode& inode, const std::string& name,
                        std::span<const std::byte> value);
    void eraseAttribute(const Ext4Inode& inode, const std::string& name);
    void stampChange(ext2_ino_t inode);
    /// Applies the parent's default ACL to a new inode; answers whether there was one.
    bool inheritAcl(ext2_ino_t parent, Ext4Inode& inode);
    void setAccessAcl(ext2_ino_t inode, std::span<const std::byte> acl, const Caller& caller);
    void followModeInAcl(Ext4Inode& inode);

    BlockDevice& device_;
    const bool readOnly_;
    std::mutex mutex_;
    /// Held by those who read contents, after they have given up the lock, which they must not take
    /// again meanwhile. Blocks are given away or written over by others only when nobody holds it.
    std::shared_mutex reading_;
    BlockCache cache_;
    ext2_filsys fs_ = nullptr;
    std::unique_ptr<Transactions> transactions_;
    std::optional<VolumeGrowth> growth_; ///< of a volume that can grow
    std::unique_ptr<OrphanList> orphans_;
    std::unique_ptr<DirectoryCache> directories_;
    InodeReferences references_;
    /// Inodes without a name that are still referenced.
    std::unordered_set<ext2_ino_t> nameless_;
    /// Those of them that lost their last reference first.
    std::vector<ext2_ino_t> unused_;
    /// Files with contents that were written since the last sync; and with such as the system may
    /// have thrown away when a sync failed.
    std::unordered_set<ext2_ino_t> unsyncedContents_;
    std::unordered_set<ext2_ino_t> lostContents_;
    std::atomic<std::uint64_t> unsyncedBytes_ = 0; ///< of contents
    bool lossUntold_ = false; ///< contents may be lost, and `sync` has not told so
    std::uint64_t overhead_ = 0;
    std::function<void(ext2_ino_t)> bitsLost_;
    /// The file that was written to by the last change, if nobody has looked at its times since.
    ext2_ino_t unseenTimes_ = 0;
    bool lookedEverywhere_ = false; ///< for free blocks with room, as the disk was full
    bool suspect_ = false;          ///< a change may have been left half-way
    bool unsynced_ = false;         ///< something was changed since the last sync
};
