#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/stat.h>
#include <vector>

/// What each entry of a folder looked like at one moment: 24 bytes an entry.
///
/// An entry's type, permissions, owner, size and times of modification and change are kept as a
/// 64-bit digest, its path as another. The inode number is not among them: file systems in user
/// space may give a file another one each time it is looked up, and a file put in another's place
/// has its own time of change.
class FolderRecord {
public:
    enum class Verdict { asRecorded, changed, unknown };

    /// `pathHash` stands for the entry's path below the folder (`TreeWalk::pathHash`).
    void add(std::uint64_t pathHash, const struct stat& status);
    /// To be called once, after the last `add` and before anything is looked up.
    void finish();

    Verdict verdict(std::uint64_t pathHash, const struct stat& status) const;
    /// The same while the folder is being deleted: that changes directories, and the time of change
    /// of files that have several names.
    Verdict verdictWhileDeleting(std::uint64_t pathHash, const struct stat& status) const;

    std::size_t size() const noexcept { return entries_.size(); }

private:
    struct Entry {
        std::uint64_t pathHash;
        std::uint64_t digest;
        std::uint64_t lastingDigest; ///< of what deleting other entries leaves as it is
    };

    const Entry* find(std::uint64_t pathHash) const;

    std::vector<Entry> entries_;
};
