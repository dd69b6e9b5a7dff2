#pragma once

#include "Platform.h"

#include <string>
#include <sys/stat.h>

/// What is kept about a file or folder beside its contents: owner, group, permissions, extended
/// attributes and access control lists. Times are left out.
class EntryMetadata {
public:
    /// Of `name` in the open directory, or of the open file itself when `name` is empty. `status`
    /// is that entry's.
    EntryMetadata(int directory, const std::string& name, const struct stat& status);

    /// True when one is a copy of the other, as good as this user can make it: owners and groups
    /// that the user may not give are no difference, nor are the set-id bits that would then lend
    /// the wrong person's rights.
    bool isLike(const EntryMetadata& other) const;
    /// True when this is a copy of `whole` that may not have got everything yet, and has nothing
    /// else.
    bool isPartOf(const EntryMetadata& whole) const;

private:
    bool hasOwnersLike(const EntryMetadata& other) const;
    bool hasModeLike(const EntryMetadata& other) const;

    struct stat status_;
    std::optional<Platform::Attributes> attributes_; ///< none when they cannot be read
};

/// True when one is the other, or the best that a file system with coarser times can keep of it.
bool areAlike(const timespec& one, const timespec& other) noexcept;
