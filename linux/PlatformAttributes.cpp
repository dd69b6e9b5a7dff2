#include "CopiedAttributes.h"
#include "Quillvane/Platform.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/xattr.h>

namespace Platform {
namespace {

/// What `read` puts into a buffer, which grows until it fits; nothing when it fails.
template <typename Read> std::optional<std::string> readWhole(Read read) {
    constexpr std::size_t most = std::size_t{1} << 20; // Linux keeps at most 64 KiB
    std::string buffer(1024, '\0');
    for (;;) {
        const ssize_t length = read(buffer.data(), buffer.size());
        if (length >= 0) {
            buffer.resize(static_cast<std::size_t>(length));
            return buffer;
        }
        if (errno != ERANGE || buffer.size() > most) return std::nullopt;
        buffer.resize(buffer.size() * 4);
    }
}

} // namespace

std::optional<Attributes> attributesOf(int directory, const std::string& name) {
    // There are no such calls that take a directory.
    const std::string path =
        directory == AT_FDCWD ? name : "/proc/self/fd/" + std::to_string(directory) + "/" + name;
    const auto names = readWhole([&](char* into, std::size_t size) {
        return name.empty() ? ::flistxattr(directory, into, size)
                            : ::llistxattr(path.c_str(), into, size);
    });
    // Where the file system has no attributes there are none.
    if (!names) return errno == ENOTSUP ? std::optional(Attributes()) : std::nullopt;
    Attributes found;
    std::string_view rest = *names;
    while (!rest.empty()) {
        const std::string attribute(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(std::min(rest.size(), attribute.size() + 1));
        if (!isCopiedAttribute(attribute)) continue;
        auto value = readWhole([&](char* into, std::size_t size) {
            return name.empty() ? ::fgetxattr(directory, attribute.c_str(), into, size)
                                : ::lgetxattr(path.c_str(), attribute.c_str(), into, size);
        });
        if (!value) return std::nullopt;
        found.emplace_back(attribute, *std::move(value));
    }
    std::ranges::sort(found);
    return found;
}

} // namespace Platform
