#include "EntryMetadata.h"

#include <algorithm>
#include <array>
#include <unistd.h>
#include <vector>

namespace {

/// Whether the user can make this the group of a file.
bool mayGive(gid_t group) {
    if (group == ::getegid()) return true;
    const int count = ::getgroups(0, nullptr);
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(count, 0)));
    const int read = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(read, 0)));
    return std::ranges::find(groups, group) != groups.end();
}

bool isCut(const timespec& copy, const timespec& original) {
    constexpr std::array<long, 6> steps{1, 100, 1'000, 1'000'000, 10'000'000, 1'000'000'000};
    const auto is = [&](time_t seconds, long nanoseconds) {
        return copy.tv_sec == seconds && copy.tv_nsec == nanoseconds;
    };
    return is(original.tv_sec & ~time_t{1}, 0) || // FAT: two seconds
           std::ranges::any_of(steps, [&](long step) {
               return is(original.tv_sec, original.tv_nsec - original.tv_nsec % step);
           });
}

} // namespace

EntryMetadata::EntryMetadata(int directory, const std::string& name, const struct stat& status)
    : status_(status), attributes_(Platform::attributesOf(directory, name)) {}

bool EntryMetadata::isLike(const EntryMetadata& other) const {
    return attributes_ && attributes_ == other.attributes_ && hasOwnersLike(other) &&
           hasModeLike(other);
}

bool EntryMetadata::isPartOf(const EntryMetadata& whole) const {
    // What is being made is for its owner alone, who can write to it.
    const mode_t allowed = whole.status_.st_mode | S_IRWXU;
    const bool ofOwner = status_.st_uid == whole.status_.st_uid || status_.st_uid == ::geteuid();
    const bool modeOfPart = S_ISLNK(status_.st_mode) || (status_.st_mode & ~allowed) == 0;
    return attributes_ && whole.attributes_ && ofOwner && modeOfPart &&
           std::ranges::includes(*whole.attributes_, *attributes_);
}

bool EntryMetadata::hasOwnersLike(const EntryMetadata& other) const {
    const bool isRoot = ::geteuid() == 0;
    const struct stat& found = other.status_;
    if (status_.st_uid != found.st_uid && isRoot) return false;
    return status_.st_gid == found.st_gid ||
           !(isRoot || (mayGive(status_.st_gid) && mayGive(found.st_gid)));
}

bool EntryMetadata::hasModeLike(const EntryMetadata& other) const {
    const struct stat& found = other.status_;
    if (S_ISLNK(status_.st_mode)) return true; // nobody can choose it
    mode_t compared = 07777;
    if (status_.st_uid != found.st_uid) compared &= ~static_cast<mode_t>(S_ISUID);
    if (status_.st_gid != found.st_gid) compared &= ~static_cast<mode_t>(S_ISGID);
    const mode_t difference = (status_.st_mode ^ found.st_mode) & compared;
    // A deletion that was interrupted may have made the folder writable for it.
    return difference == 0 || (S_ISDIR(status_.st_mode) && (difference & ~S_IRWXU) == 0 &&
                               (status_.st_mode & S_IRWXU) == S_IRWXU);
}

bool areAlike(const timespec& one, const timespec& other) noexcept {
    return isCut(one, other) || isCut(other, one);
}
