#include "linux/ditto/Ownership.h"

namespace {
constexpr uid_t unchangedOwner = static_cast<uid_t>(-1);
constexpr gid_t unchangedGroup = static_cast<gid_t>(-1);
} // namespace

void Ownership::apply(const Node& copy, const Status& original, const Status& now) {
    const std::lock_guard lock(mutex_);
    if (now.owner != original.owner && !refusedOwners_.contains(original.owner) &&
        !copy.setOwner(original.owner, unchangedGroup)) {
        refusedOwners_.insert(original.owner);
    }
    if (now.group != original.group && !refusedGroups_.contains(original.group) &&
        !copy.setOwner(unchangedOwner, original.group)) {
        refusedGroups_.insert(original.group);
    }
}

mode_t Ownership::permissions(const Status& original, const Status& copy) const noexcept {
    mode_t mode = original.mode & 07777;
    if (copy.owner != original.owner) mode &= ~static_cast<mode_t>(S_ISUID);
    if (copy.group != original.group) mode &= ~static_cast<mode_t>(S_ISGID);
    return mode;
}

void Ownership::check(const Status& original, const Status& copy) const {
    if (copy.owner != original.owner && !refusedOwners_.contains(original.owner)) {
        throw Difference("owner differs in the copy");
    }
    if (copy.group != original.group && !refusedGroups_.contains(original.group)) {
        throw Difference("group differs in the copy");
    }
}
