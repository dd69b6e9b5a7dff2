#include "FolderRecord.h"

#include "Platform.h"

#include <algorithm>
#include <ctime>
#include <initializer_list>

namespace {

/// The finalizer of SplitMix64: every bit of the input reaches every bit of the result.
std::uint64_t mixed(std::uint64_t value) {
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
}

std::uint64_t digestOf(std::initializer_list<std::uint64_t> parts) {
    std::uint64_t digest = 0;
    for (const std::uint64_t part : parts) digest = mixed(digest + part + 0x9e3779b97f4a7c15);
    return digest;
}

std::uint64_t nanoseconds(const timespec& time) {
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

/// A directory's size says nothing that its times do not, and some file systems compute it.
std::uint64_t sizeOf(const struct stat& status) {
    return S_ISDIR(status.st_mode) ? 0 : static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t lastingDigestOf(const struct stat& status) {
    if (S_ISDIR(status.st_mode)) {
        const mode_t type = status.st_mode & S_IFMT; // S_IFMT is no unsigned number everywhere
        return digestOf({type, status.st_uid, status.st_gid});
    }
    return digestOf({status.st_mode, status.st_uid, status.st_gid,
                     static_cast<std::uint64_t>(status.st_rdev), sizeOf(status),
                     nanoseconds(Platform::modificationTime(status))});
}

std::uint64_t fullDigestOf(const struct stat& status) {
    return digestOf({status.st_mode, status.st_uid, status.st_gid,
                     static_cast<std::uint64_t>(status.st_rdev), sizeOf(status),
                     nanoseconds(Platform::modificationTime(status)),
                     nanoseconds(Platform::changeTime(status))});
}

} // namespace

void FolderRecord::add(std::uint64_t pathHash, const struct stat& status) {
    const bool lasts = !S_ISDIR(status.st_mode) && status.st_nlink == 1;
    const std::uint64_t full = fullDigestOf(status);
    entries_.push_back({pathHash, full, lasts ? full : lastingDigestOf(status)});
}

void FolderRecord::finish() {
    std::ranges::sort(entries_, {}, &Entry::pathHash);
}

const FolderRecord::Entry* FolderRecord::find(std::uint64_t pathHash) const {
    const auto found = std::ranges::lower_bound(entries_, pathHash, {}, &Entry::pathHash);
    return found == entries_.end() || found->pathHash != pathHash ? nullptr : &*found;
}

FolderRecord::Verdict FolderRecord::verdict(std::uint64_t pathHash,
                                            const struct stat& status) const {
    const Entry* const entry = find(pathHash);
    if (entry == nullptr) return Verdict::unknown;
    return entry->digest == fullDigestOf(status) ? Verdict::asRecorded : Verdict::changed;
}

FolderRecord::Verdict FolderRecord::verdictWhileDeleting(std::uint64_t pathHash,
                                                         const struct stat& status) const {
    const Entry* const entry = find(pathHash);
    if (entry == nullptr) return Verdict::unknown;
    const std::uint64_t kept = entry->lastingDigest;
    const bool same = kept == fullDigestOf(status) || kept == lastingDigestOf(status);
    return same ? Verdict::asRecorded : Verdict::changed;
}
