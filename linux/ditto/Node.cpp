#include "linux/ditto/Node.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <string_view>

namespace {

/// Calls `read(buffer, size)` with a growing buffer until the answer fits; -1 with errno when it
/// fails for another reason than size.
template <typename Read> ssize_t readGrowing(std::string& buffer, Read read) {
    for (;;) {
        const ssize_t length = read(buffer.data(), buffer.size());
        // Linux holds at most 64 KiB; whoever asks for more than a MiB goes on asking.
        if (length >= 0 || errno != ERANGE || buffer.size() > 1U << 20) return length;
        buffer.resize(buffer.size() * 4);
    }
}

} // namespace

std::string Node::path() const {
    return "/proc/self/fd/" + std::to_string(fd_) + "/" + name_;
}

bool Node::setOwner(uid_t owner, gid_t group) const {
    if (fchownat(fd_, name_, owner, group, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) == 0) return true;
    // EINVAL: the owner does not exist in this user namespace.
    if (errno == EPERM || errno == EINVAL) return false;
    fail(side_, "owner cannot be set");
}

void Node::setMode(mode_t permissions) const {
    const int result = byName() ? fchmodat(fd_, name_, permissions, AT_SYMLINK_NOFOLLOW)
                                : fchmod(fd_, permissions);
    if (result != 0) fail(side_, "permissions cannot be set");
}

void Node::setTimes(const timespec& accessed, const timespec& modified) const {
    const std::array<timespec, 2> times{accessed, modified};
    const int result = byName() ? utimensat(fd_, name_, times.data(), AT_SYMLINK_NOFOLLOW)
                                : futimens(fd_, times.data());
    if (result != 0) fail(side_, "times cannot be set");
}

std::string Node::linkTarget() const {
    std::string target(256, '\0');
    for (;;) {
        const ssize_t length = readlinkat(fd_, name_, target.data(), target.size());
        if (length < 0) fail(side_, "cannot be read");
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
        target.resize(target.size() * 4);
    }
}

std::vector<std::string> Node::attributeNames() const {
    thread_local std::string buffer(1024, '\0');
    const std::string where = byName() ? path() : std::string();
    const ssize_t length = readGrowing(buffer, [&](char* into, std::size_t size) {
        return byName() ? llistxattr(where.c_str(), into, size) : flistxattr(fd_, into, size);
    });
    if (length < 0) {
        if (errno == ENOTSUP) return {};
        fail(side_, "extended attributes cannot be listed");
    }
    std::vector<std::string> names;
    std::string_view rest(buffer.data(), static_cast<std::size_t>(length));
    while (!rest.empty()) {
        const std::size_t end = rest.find('\0');
        names.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    return names;
}

std::optional<std::string> Node::attribute(const std::string& name) const {
    std::string value(1024, '\0');
    const std::string where = byName() ? path() : std::string();
    const ssize_t length = readGrowing(value, [&](char* into, std::size_t size) {
        return byName() ? lgetxattr(where.c_str(), name.c_str(), into, size)
                        : fgetxattr(fd_, name.c_str(), into, size);
    });
    if (length < 0) {
        if (errno == ENODATA) return std::nullopt;
        fail(side_, "attribute " + name + " cannot be read");
    }
    value.resize(static_cast<std::size_t>(length));
    return value;
}

void Node::setAttribute(const std::string& name, const std::string& value) const {
    const int result = byName()
                           ? lsetxattr(path().c_str(), name.c_str(), value.data(), value.size(), 0)
                           : fsetxattr(fd_, name.c_str(), value.data(), value.size(), 0);
    if (result != 0) fail(side_, "attribute " + name + " cannot be set");
}

void Node::removeAttribute(const std::string& name) const {
    const int result =
        byName() ? lremovexattr(path().c_str(), name.c_str()) : fremovexattr(fd_, name.c_str());
    if (result != 0 && errno != ENODATA) fail(side_, "attribute " + name + " cannot be removed");
}

FileDescriptor openToRead(Side side, int directory, const char* name, int flags) {
    const int all = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | flags;
    FileDescriptor file(openat(directory, name, all | O_NOATIME));
    // Only the owner may leave the time of access alone.
    if (!file.open() && errno == EPERM) file = FileDescriptor(openat(directory, name, all));
    if (!file.open()) fail(side, "cannot be read");
    return file;
}
