#pragma once

#include <ext2fs/ext2fs.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

/// How often each inode of a volume is referenced.
///
/// A kernel references every inode that it remembers, a million of them at times, and most have
/// neighbours that are referenced, too: so the counts lie in pages. Not thread-safe.
class InodeReferences {
public:
    void add(ext2_ino_t inode);
    /// Takes as many references away, or all that there are.
    void remove(ext2_ino_t inode, std::uint64_t count);
    bool has(ext2_ino_t inode) const noexcept;

private:
    static constexpr ext2_ino_t perPage = 512;
    struct Page {
        std::array<std::uint64_t, perPage> counts{};
        std::size_t used = 0; ///< counts that are not zero
    };
    std::unordered_map<ext2_ino_t, std::unique_ptr<Page>> pages_;
};
