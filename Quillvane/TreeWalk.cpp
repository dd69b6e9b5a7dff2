#include "TreeWalk.h"

#include "Platform.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

/// 64 bits of FNV-1a over the names on the way, each ended by a zero byte, which no name contains.
constexpr std::uint64_t rootHash = 0xcbf29ce484222325;

std::uint64_t hashBelow(std::uint64_t parent, std::string_view name) {
    constexpr std::uint64_t prime = 0x100000001b3;
    for (const char c : name) parent = (parent ^ static_cast<unsigned char>(c)) * prime;
    return parent * prime;
}

constexpr int openFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct CloseStream {
    void operator()(DIR* stream) const noexcept { ::closedir(stream); }
};

/// The names in an open directory; an errno instead of 0 when they could not all be read.
int listNames(int directory, std::vector<std::string>& names) {
    const int fd = ::openat(directory, ".", openFlags);
    if (fd < 0) return errno;
    const std::unique_ptr<DIR, CloseStream> stream(::fdopendir(fd));
    if (!stream) {
        const int error = errno;
        ::close(fd);
        return error;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get()); // NOLINT(concurrency-mt-unsafe)
        if (entry == nullptr) return errno;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
}

} // namespace

std::filesystem::path TreeWalk::pathOf(const std::string& name) const {
    std::filesystem::path path;
    for (const Level& level : levels_) path /= level.name;
    return path / name;
}

std::uint64_t TreeWalk::pathHash(const std::string& name) const {
    if (levels_.empty()) return rootHash;
    return hashBelow(levels_.back().pathHash, name);
}

void TreeWalk::walk(int parent, const std::string& root) {
    outside_ = parent;
    descend(root);
    while (!levels_.empty()) {
        auto& left = levels_.back().directoriesLeft;
        if (left.empty()) {
            ascend();
            continue;
        }
        const std::string name = std::move(left.back());
        left.pop_back();
        descend(name);
    }
}

int TreeWalk::currentDirectory() const noexcept {
    return levels_.empty() ? outside_ : current_.get();
}

void TreeWalk::descend(const std::string& name) {
    const int parent = currentDirectory();
    struct stat seen {};
    if (::fstatat(parent, name.c_str(), &seen, AT_SYMLINK_NOFOLLOW) != 0)
        return failed(name, errno);
    if (!levels_.empty() && seen.st_dev != levels_.back().device) return failed(name, EXDEV);
    enter(parent, name, seen);
    FileDescriptor directory(::openat(parent, name.c_str(), openFlags));
    struct stat opened {};
    // Without the right to search there would be no way back either.
    if (!directory || ::fstat(directory.get(), &opened) != 0 ||
        ::faccessat(directory.get(), ".", X_OK, AT_EACCESS) != 0)
        return failed(name, errno);
    if (opened.st_dev != seen.st_dev || opened.st_ino != seen.st_ino) return failed(name, ESTALE);
    if (!levels_.empty() && Platform::isMountRoot(directory.get())) return failed(name, EXDEV);
    const std::uint64_t hash = pathHash(name);
    current_ = std::move(directory);
    levels_.push_back({name, opened.st_dev, opened.st_ino, hash, {}});
    visitEntries();
}

void TreeWalk::visitEntries() {
    std::vector<std::string> names;
    const int error = listNames(current_.get(), names);
    if (error != 0) failed(".", error);
    for (std::string& name : names) {
        struct stat status {};
        if (::fstatat(current_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            failed(name, errno);
        else if (S_ISDIR(status.st_mode))
            levels_.back().directoriesLeft.push_back(std::move(name));
        else
            file(current_.get(), name, status);
    }
}

void TreeWalk::ascend() {
    const std::string name = std::move(levels_.back().name);
    levels_.pop_back();
    if (levels_.empty()) {
        current_.reset();
        return leave(outside_, name);
    }
    FileDescriptor parent(::openat(current_.get(), "..", openFlags));
    struct stat status {};
    if (!parent || ::fstat(parent.get(), &status) != 0)
        throw std::filesystem::filesystem_error("cannot go back", pathOf(name),
                                                std::error_code(errno, std::generic_category()));
    if (status.st_dev != levels_.back().device || status.st_ino != levels_.back().inode)
        throw std::filesystem::filesystem_error("moved meanwhile", pathOf(name),
                                                std::error_code(ESTALE, std::generic_category()));
    current_ = std::move(parent);
    leave(current_.get(), name);
}
