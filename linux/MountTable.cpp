#include "MountTable.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

namespace {

using Path = std::filesystem::path;

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

// The kernel writes space, tab, line feed and backslash as \040 and so on.
std::string unescaped(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() &&
            std::ranges::all_of(text.substr(i + 1, 3), isOctalDigit)) {
            result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                        (text[i + 3] - '0'));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

bool parseDevice(const std::string& text, MountEntry& entry) {
    const char* const end = text.data() + text.size();
    const auto [colon, error] = std::from_chars(text.data(), end, entry.major);
    if (error != std::errc() || colon == end || *colon != ':') return false;
    const auto [rest, minorError] = std::from_chars(colon + 1, end, entry.minor);
    return minorError == std::errc() && rest == end;
}

// "rw,user_id=1000,group_id=1000": what the kernel itself says of the file system.
std::optional<uid_t> userOf(const std::string& superOptions) {
    constexpr std::string_view key = "user_id=";
    std::istringstream options(superOptions);
    for (std::string option; std::getline(options, option, ',');) {
        uid_t user = 0;
        if (!option.starts_with(key)) continue;
        const char* const end = option.data() + option.size();
        const auto [rest, error] = std::from_chars(option.data() + key.size(), end, user);
        return error == std::errc() && rest == end ? std::optional(user) : std::nullopt;
    }
    return std::nullopt;
}

// "36 35 0:42 / /mnt rw,noatime master:1 - ext4 /dev/root rw": any number of fields before "-".
// Only a space ends a field: names may hold other white space, which the kernel leaves as it is.
std::optional<MountEntry> parseLine(const std::string& line) {
    std::istringstream fields(line);
    const auto next = [&](std::string& field) -> bool {
        return static_cast<bool>(std::getline(fields, field, ' '));
    };
    std::string id;
    std::string parent;
    std::string device;
    std::string root;
    std::string mountPoint;
    std::string options;
    MountEntry entry;
    if (!(next(id) && next(parent) && next(device) && next(root) && next(mountPoint) &&
          next(options)))
        return std::nullopt;
    if (!parseDevice(device, entry)) return std::nullopt;
    std::string field;
    while (next(field) && field != "-") {
    }
    std::string type;
    if (!next(type)) return std::nullopt;
    std::string source; // may be empty
    std::string superOptions;
    if (next(source)) next(superOptions);
    entry.user = userOf(superOptions);
    entry.mountPoint = unescaped(mountPoint);
    entry.type = unescaped(type);
    entry.source = unescaped(source);
    return entry;
}

// The path without symbolic links, but for its last part, which a dead mount would not let us
// look at.
std::optional<Path> resolved(const Path& path) {
    std::error_code error;
    const Path parent = std::filesystem::canonical(path.parent_path(), error);
    if (error) return std::nullopt;
    return parent / path.filename();
}

} // namespace

bool MountEntry::isOwn() const {
    return user == ::geteuid();
}

bool MountEntry::isSameVolume(const MountEntry& other) const {
    return major == other.major && minor == other.minor && type == other.type &&
           source == other.source;
}

MountTable::MountTable(std::string_view mountInfo) {
    std::istringstream lines{std::string(mountInfo)};
    for (std::string line; std::getline(lines, line);) {
        if (auto entry = parseLine(line)) entries_.push_back(*std::move(entry));
    }
}

MountTable MountTable::current() {
    errno = 0;
    std::ifstream file("/proc/self/mountinfo");
    std::ostringstream content;
    content << file.rdbuf();
    if (!file || content.str().empty())
        throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(),
                                "/proc/self/mountinfo");
    return MountTable(content.str());
}

std::optional<MountEntry> MountTable::at(const Path& mountPoint) const {
    const auto found =
        std::find_if(entries_.rbegin(), entries_.rend(),
                     [&](const MountEntry& entry) { return entry.mountPoint == mountPoint; });
    return found != entries_.rend() ? std::optional(*found) : std::nullopt;
}

std::vector<MountEntry> MountTable::mountsOf(const MountEntry& volume) const {
    std::vector<MountEntry> result;
    std::ranges::copy_if(entries_, std::back_inserter(result),
                         [&](const MountEntry& entry) { return entry.isSameVolume(volume); });
    return result;
}

std::optional<MountEntry> MountTable::volume(const std::string& target) const {
    const auto ours = [](const MountEntry& entry) { return entry.type == volumeType; };
    for (const MountEntry& entry : entries_) {
        if (ours(entry) && entry.deviceName() == target) return entry;
    }
    std::error_code error;
    Path path = std::filesystem::absolute(target, error);
    if (error) return std::nullopt;
    if (!path.has_filename()) path = path.parent_path(); // a slash at the end
    auto found = at(path);
    if (found && ours(*found)) return found;
    if (const auto parentResolved = resolved(path)) found = at(*parentResolved);
    if (found && ours(*found)) return found;
    const Path whole = std::filesystem::canonical(path, error);
    if (!error) found = at(whole);
    return found && ours(*found) ? found : std::nullopt;
}

bool isDeadMount(const MountEntry& mount) {
    if (!mount.isOwn()) return false;
    // Not stat, which the kernel may answer from what it remembers. A request that was waiting when
    // the server died gets the second error.
    struct statvfs status {};
    return ::statvfs(mount.mountPoint.c_str(), &status) != 0 &&
           (errno == ENOTCONN || errno == ECONNABORTED);
}
