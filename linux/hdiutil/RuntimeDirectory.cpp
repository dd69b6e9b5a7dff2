#include "RuntimeDirectory.h"

#include "ToolError.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Path = std::filesystem::path;

// Anybody who could write there could put a directory of his in the place of ours.
bool isOwnDirectory(const Path& path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) &&
           found.st_uid == ::geteuid() && (found.st_mode & S_IWOTH) == 0;
}

Path base() {
    const char* const given = std::getenv("XDG_RUNTIME_DIR");
    if (given != nullptr && given[0] == '/' && isOwnDirectory(given)) return given;
    Path usual = "/run/user/" + std::to_string(::geteuid());
    if (isOwnDirectory(usual)) return usual;
    if (::geteuid() == 0) return "/run";
    Path cache = homeDirectory() / ".cache";
    if (::mkdir(cache.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::system_error(errno, std::generic_category(), cache.string());
    if (!isOwnDirectory(cache)) throw ToolError("everybody may write to " + cache.string());
    return cache;
}

} // namespace

Path homeDirectory() {
    const char* const given = std::getenv("HOME");
    if (given != nullptr && given[0] == '/') return given;
    passwd account{};
    passwd* found = nullptr;
    std::array<char, 4096> buffer{};
    ::getpwuid_r(::geteuid(), &account, buffer.data(), buffer.size(), &found);
    if (found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/')
        throw ToolError("no home directory");
    return found->pw_dir;
}

Path runtimeDirectory() {
    Path path = base() / "quillvane";
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::system_error(errno, std::generic_category(), path.string());
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0)
        throw std::system_error(errno, std::generic_category(), path.string());
    // Whoever could enter it could look at volumes while they are made and checked.
    if (!S_ISDIR(found.st_mode) || found.st_uid != ::geteuid() || (found.st_mode & 077) != 0)
        throw ToolError(path.string() + " is not a private directory");
    return path;
}
