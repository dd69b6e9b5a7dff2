#pragma once

#include "linux/ditto/TreeWalk.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

/// Device and inode number.
using EntryIdentity = std::pair<dev_t, std::uint64_t>;

/// Copies files with several names once and links the further names. Only files whose link count
/// is above one are remembered, and only until their last name was seen. For such files, `link` and
/// what follows up to `copied` is for one thread at a time; for others both do nothing.
class LinkMaker {
public:
    /// `destination` is the root of the copy, borrowed.
    explicit LinkMaker(int destination) noexcept : destination_(destination) {}

    /// True when another name of the same file was copied before and the entry is now a link to
    /// that copy. Throws FileError.
    bool link(const Entry& entry);
    /// To be called after the first name was copied whole.
    void copied(const Entry& entry);

private:
    struct Copied {
        std::string path; ///< below the root of the copy
        std::uint64_t namesLeft;
    };

    int destination_;
    std::map<EntryIdentity, Copied> files_; ///< by the original
};

/// Looks whether the copies are linked to each other exactly as the originals are. `check` may be
/// called by several threads.
class LinkChecker {
public:
    /// To be called for each entry that is no directory; `copy` is the status of its copy. True
    /// when another name of the same file was checked before, so that the contents need not be
    /// compared again. Throws Difference.
    bool check(const Entry& entry, const Status& copy);
    /// To be called after the last entry: reports files with links that the original has not.
    void finish(Report& report) const;

private:
    struct Seen {
        std::uint64_t copyInode;
        std::uint64_t copyLinks;
        std::uint64_t names;
        std::string path; ///< the least, for the message
    };
    std::mutex mutex_;
    std::map<EntryIdentity, Seen> files_; ///< by the original
};
