#pragma once

#include "Ext4Inode.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

/// The entries of one directory, with an index of its names held in memory.
///
/// ext4 stores entries in blocks, in no order; finding a name without an index means reading them
/// all. The index maps a hash of each name to the entry's place and knows how much room each block
/// has. A hash tree that a kernel has built is read as plain blocks, as its format allows, and
/// given up when an entry is added. Failures are `std::system_error`; a malformed block is EUCLEAN.
class Directory {
public:
    struct Entry {
        ext2_ino_t inode = 0;
        int type = EXT2_FT_UNKNOWN;
        std::string_view name;  ///< valid until the next call
        std::uint64_t next = 0; ///< the place to go on after this entry
    };

    /// Reads all blocks of the directory and builds the index.
    Directory(ext2_filsys fs, ext2_ino_t number);

    std::optional<Entry> find(std::string_view name);
    /// Adds a name that is not there yet. `self` is the directory's own inode, which may grow; the
    /// caller stores it.
    void add(Ext4Inode& self, std::string_view name, ext2_ino_t inode, int type);
    /// Both fail with ENOENT when the name is not there.
    void remove(std::string_view name);
    void change(std::string_view name, ext2_ino_t inode, int type);

    /// Calls `visit` for each entry ("." and ".." too) from the place `from` (0 for the start, else
    /// an Entry's `next`) until it answers false. Entries may be added and removed in between.
    void visit(std::uint64_t from, const std::function<bool(const Entry&)>& visit);
    bool empty() const noexcept { return names_.size() <= 2; }
    /// How many names the index holds, for the bound on memory.
    std::size_t size() const noexcept { return names_.size(); }

    /// The directory-entry type for a file mode.
    static int typeOf(mode_t mode) noexcept;

private:
    struct Block {
        blk64_t physical = 0;
        std::uint16_t room = 0; ///< bytes that the largest new entry may take
    };

    void loadBlock(std::size_t block);
    void storeBlock(std::size_t block);
    void indexBlock(std::size_t block);
    void appendBlock(Ext4Inode& self);
    void giveUpHashTree(Ext4Inode& self);
    bool insertIn(std::size_t block, std::string_view name, ext2_ino_t inode, int type);
    std::optional<std::uint64_t> locate(std::string_view name);
    ext2_dir_entry& entryAt(std::size_t offset);
    std::size_t nextOffset(std::size_t offset);
    std::size_t usableBytes() const noexcept;

    ext2_filsys fs_;
    ext2_ino_t number_;
    std::vector<Block> blocks_;
    std::unordered_multimap<std::uint32_t, std::uint64_t> names_; ///< hash to byte place
    std::vector<char> buffer_;                                    ///< the block last loaded
    std::size_t loaded_;
    std::size_t roomHint_ = 0; ///< no earlier block has room worth a search
};

/// The directories used of late, bounded by the number of names in their indexes.
class DirectoryCache {
public:
    explicit DirectoryCache(ext2_filsys fs) : fs_(fs) {}
    /// Valid until the next call of `get` or `drop`; two in a row stay valid together.
    Directory& get(ext2_ino_t number);
    void drop(ext2_ino_t number);

private:
    static constexpr std::size_t maximumNames = 400'000;
    static constexpr std::size_t maximumDirectories = 512;
    using Recent = std::list<std::pair<ext2_ino_t, Directory>>;

    ext2_filsys fs_;
    Recent recent_; ///< most recently used first
    std::unordered_map<ext2_ino_t, Recent::iterator> index_;
};
