#pragma once

#include "linux/ditto/Node.h"

#include <mutex>
#include <set>

/// Owner and group of the copies, as far as the system permits.
///
/// The administrator gives every file its owner. An ordinary user's copies are that user's own,
/// with the original's group where the user belongs to it; that is no failure. What was refused is
/// remembered, so that the comparison excuses exactly that.
class Ownership {
public:
    /// Gives `copy`, whose status is `now`, the owner and group of `original`; several threads may
    /// do so at once. Throws FileError.
    void apply(const Node& copy, const Status& original, const Status& now);

    /// The permission bits that the copy should have. "Run as the owner" (or group) is left out
    /// where the copy has another owner (or group): it would lend the wrong person's rights.
    mode_t permissions(const Status& original, const Status& copy) const noexcept;

    /// Throws Difference when the owner or group differs without having been refused. Not to be
    /// called before the last `apply`.
    void check(const Status& original, const Status& copy) const;

private:
    std::mutex mutex_;
    std::set<uid_t> refusedOwners_;
    std::set<gid_t> refusedGroups_;
};
