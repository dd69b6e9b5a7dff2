#include "Quillvane/Platform.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <string_view>
#include <sys/acl.h>
#include <sys/xattr.h>

namespace Platform {
namespace {

/// What the system keeps about its own copy of a file.
bool isOfTheSystem(std::string_view attribute) {
    constexpr std::array<std::string_view, 3> prefixes{"com.apple.provenance", "com.apple.macl",
                                                       "com.apple.system."};
    return std::ranges::any_of(
        prefixes, [&](std::string_view prefix) { return attribute.starts_with(prefix); });
}

/// What `read` puts into a buffer of the size that it asks for; nothing when it fails.
template <typename Read> std::optional<std::string> readWhole(Read read) {
    for (;;) {
        const ssize_t needed = read(nullptr, 0);
        if (needed < 0) return std::nullopt;
        std::string buffer(static_cast<std::size_t>(needed), '\0');
        const ssize_t length = needed == 0 ? 0 : read(buffer.data(), buffer.size());
        if (length >= 0) {
            buffer.resize(static_cast<std::size_t>(length));
            return buffer;
        }
        if (errno != ERANGE) return std::nullopt; // else it has grown meanwhile
    }
}

/// There are no such calls that take a directory.
std::optional<std::string> pathOf(int directory, const std::string& name) {
    if (directory == AT_FDCWD) return name;
    std::array<char, PATH_MAX> path{};
    if (::fcntl(directory, F_GETPATH, path.data()) != 0) return std::nullopt;
    return name.empty() ? std::string(path.data()) : path.data() + ("/" + name);
}

/// The entries of the access control list, one a line, but for those that a folder above has handed
/// down, which belong to the place.
std::optional<std::string> accessList(const std::string& path) {
    errno = 0;
    const std::unique_ptr<std::remove_pointer_t<acl_t>, int (*)(void*)> list(
        ::acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED), ::acl_free);
    if (!list) return errno == ENOENT || errno == ENOTSUP ? std::optional("") : std::nullopt;
    const std::unique_ptr<char, int (*)(void*)> text(::acl_to_text(list.get(), nullptr),
                                                     ::acl_free);
    if (!text) return std::nullopt;
    std::istringstream lines(text.get());
    std::string entries;
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with('!') && line.find(",inherited") == std::string::npos)
            entries += line + "\n";
    return entries;
}

} // namespace

std::optional<Attributes> attributesOf(int directory, const std::string& name) {
    const auto path = pathOf(directory, name);
    if (!path) return std::nullopt;
    const auto names = readWhole([&](char* into, std::size_t size) {
        return ::listxattr(path->c_str(), into, size, XATTR_NOFOLLOW);
    });
    if (!names && errno != ENOTSUP) return std::nullopt;
    Attributes found;
    std::string_view rest = names ? std::string_view(*names) : std::string_view();
    while (!rest.empty()) {
        const std::string attribute(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(std::min(rest.size(), attribute.size() + 1));
        if (isOfTheSystem(attribute)) continue;
        auto value = readWhole([&](char* into, std::size_t size) {
            return ::getxattr(path->c_str(), attribute.c_str(), into, size, 0, XATTR_NOFOLLOW);
        });
        if (!value) return std::nullopt;
        found.emplace_back(attribute, *std::move(value));
    }
    auto list = accessList(*path);
    if (!list) return std::nullopt;
    if (!list->empty()) found.emplace_back("access control list", *std::move(list));
    std::ranges::sort(found);
    return found;
}

} // namespace Platform
