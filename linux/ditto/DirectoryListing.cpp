#include "linux/ditto/DirectoryListing.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace {

using Found = std::vector<std::pair<std::uint64_t, std::string>>;

void addEntries(const std::byte* at, const std::byte* end, Found& found) {
    while (at < end) {
        const auto* entry = reinterpret_cast<const dirent64*>(at);
        const std::string_view name(static_cast<const char*>(entry->d_name));
        if (name != "." && name != "..") found.emplace_back(entry->d_ino, name);
        at += entry->d_reclen;
    }
}

} // namespace

std::vector<std::string> listDirectory(Side side, int directory) {
    alignas(dirent64) thread_local std::byte buffer[1 << 16];
    if (lseek(directory, 0, SEEK_SET) != 0) fail(side, "cannot be listed");
    Found found;
    for (;;) {
        const ssize_t length = getdents64(directory, buffer, sizeof buffer);
        if (length < 0) fail(side, "cannot be listed");
        if (length == 0) break;
        addEntries(buffer, buffer + length, found);
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    names.reserve(found.size());
    for (auto& [inode, name] : found) names.push_back(std::move(name));
    return names;
}
