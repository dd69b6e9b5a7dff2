#include "MountList.h"

#include "Quillvane/ProcessRunner.h"

#include <cerrno>
#include <exception>
#include <fstream>
#include <iterator>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>

namespace MountList {
namespace {

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

/// The kernel writes blanks, tabs, line feeds and backslashes as "\040" and the like.
std::string decoded(std::string_view field) {
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const std::string_view digits = field.substr(i + 1, 3);
        if (field[i] == '\\' && digits.size() == 3 && digits[0] <= '3' && isOctalDigit(digits[0]) &&
            isOctalDigit(digits[1]) && isOctalDigit(digits[2])) {
            text += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 +
                                      (digits[2] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (std::size_t end = 0; end != std::string_view::npos; text.remove_prefix(end + 1)) {
        end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
    }
    return parts;
}

std::optional<Entry> parseLine(std::string_view line) {
    constexpr std::size_t mountPointField = 4;
    constexpr std::size_t firstOptionalField = 6;
    const std::vector<std::string_view> fields = split(line, ' ');
    std::size_t separator = firstOptionalField;
    while (separator < fields.size() && fields[separator] != "-") ++separator;
    if (separator + 2 >= fields.size()) return std::nullopt;
    return Entry{decoded(fields[mountPointField]), decoded(fields[separator + 1]),
                 decoded(fields[separator + 2])};
}

} // namespace

std::vector<Entry> parse(std::string_view mountinfo) {
    std::vector<Entry> entries;
    for (const std::string_view line : split(mountinfo, '\n'))
        if (auto entry = parseLine(line)) entries.push_back(std::move(*entry));
    return entries;
}

std::vector<Entry> read() {
    std::ifstream file("/proc/self/mountinfo", std::ios::binary);
    return parse(std::string(std::istreambuf_iterator<char>(file), {}));
}

bool isDead(const Entry& entry) {
    struct stat status {};
    return ::lstat(entry.mountPoint.c_str(), &status) != 0 && errno == ENOTCONN;
}

void cleanUp(const Entry& entry) {
    if (entry.type != ownType) return;
    if (::umount2(entry.mountPoint.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) return;
    try {
        ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", "--", entry.mountPoint});
    } catch (const std::exception&) {
        return; // best effort: the mount stays dead and in nobody's way
    }
}

} // namespace MountList
