#include "DurableFile.h"

#include "FileDescriptor.h"
#include "Platform.h"
#include "SecureRandom.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

// A file is replaced by a temporary one that takes its name. The writer holds a lock on it from its
// first moment to its last, so that one without a lock was left behind by a program that was
// killed, and may go. Its name is random and never used again: whoever comes too late to remove it
// removes nothing else.

namespace DurableFile {
namespace {

using Path = std::filesystem::path;

constexpr std::string_view temporaryPrefix = ".quillvane-";
constexpr std::string_view temporarySuffix = ".tmp";
constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr std::size_t randomBytes = 8;

[[noreturn]] void fail(const char* what, const Path& path) {
    throw std::filesystem::filesystem_error(what, path,
                                            std::error_code(errno, std::generic_category()));
}

Path directoryOf(const Path& file) {
    return file.has_parent_path() ? file.parent_path() : Path(".");
}

void sync(int fd, const Path& path) {
    try {
        Platform::fullSync(fd);
    } catch (const std::system_error& error) {
        throw std::filesystem::filesystem_error("cannot sync", path, error.code());
    }
}

FileDescriptor openDirectory(const Path& directory) {
    FileDescriptor fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) fail("cannot open", directory);
    return fd;
}

void syncNames(const FileDescriptor& directory, const Path& path) {
    try {
        sync(directory.get(), path);
    } catch (const std::filesystem::filesystem_error& error) {
        // EINVAL: the file system has no need to sync directories.
        if (error.code() != std::errc::invalid_argument) throw;
    }
}

/// A file that is being written beside its target; removed in the end unless it took its place.
class Temporary {
public:
    explicit Temporary(const Path& directory) {
        do {
            path_ = directory / temporaryName();
            fd_.reset(
                ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (!fd_) fail("cannot create", path_);
        } while (!isKept());
    }
    ~Temporary() {
        if (!inPlace_) ::unlink(path_.c_str());
    }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;

    void write(std::string_view contents) {
        while (!contents.empty()) {
            const ssize_t written = ::write(fd_.get(), contents.data(), contents.size());
            if (written >= 0) {
                contents.remove_prefix(static_cast<std::size_t>(written));
            } else if (errno != EINTR) {
                fail("cannot write", path_);
            }
        }
    }

    void takePlaceOf(const Path& target, mode_t mode) {
        if (::fchmod(fd_.get(), mode) != 0) fail("cannot set the mode", path_);
        sync(fd_.get(), path_);
        if (::rename(path_.c_str(), target.c_str()) != 0) fail("cannot replace", target);
        inPlace_ = true;
    }

    bool isAt(const Path& target) const {
        struct stat here {};
        struct stat there {};
        return ::fstat(fd_.get(), &here) == 0 && ::lstat(target.c_str(), &there) == 0 &&
               here.st_dev == there.st_dev && here.st_ino == there.st_ino;
    }

private:
    /// False when a `removeAbandoned` came between the file's creation and its lock. Where the
    /// file system knows no locks, nobody gets one to remove it.
    bool isKept() const {
        if (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) return errno != EWOULDBLOCK;
        struct stat status {};
        return ::lstat(path_.c_str(), &status) == 0;
    }

    Path path_;
    FileDescriptor fd_;
    bool inPlace_ = false;
};

/// What has a target's name before it is replaced, to be put back. It is not kept open: network
/// drives would rename an open file out of the way first, and a crash could leave none.
class Former {
public:
    explicit Former(const Path& target) {
        const FileDescriptor fd(
            ::open(target.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        wasThere_ = fd || errno != ENOENT;
        struct stat status {};
        if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
        mode_ = status.st_mode & 0777;
        contents_ = readAll(fd);
    }

    /// Gives the target its contents again. What was no file, or could not be read, is gone.
    void putBack(const Path& target) const {
        if (!wasThere_) {
            if (::unlink(target.c_str()) != 0) fail("cannot remove", target);
            return;
        }
        if (!contents_) return;
        Temporary file(directoryOf(target));
        file.write(*contents_);
        // Synced like any other: the new contents are, and only as much may take their place.
        file.takePlaceOf(target, mode_);
    }

private:
    static std::optional<std::string> readAll(const FileDescriptor& fd) {
        std::string all;
        std::array<char, 1 << 16> piece{};
        while (true) {
            const ssize_t got = ::read(fd.get(), piece.data(), piece.size());
            if (got == 0) return all;
            if (got > 0)
                all.append(piece.data(), static_cast<std::size_t>(got));
            else if (errno != EINTR)
                return std::nullopt;
        }
    }

    bool wasThere_ = false;
    mode_t mode_ = 0;
    std::optional<std::string> contents_;
};

/// Best effort: the error that made it necessary is the one to tell.
void takeBack(const Temporary& file, const Former& former, const Path& target) {
    try {
        if (file.isAt(target)) former.putBack(target);
    } catch (const std::filesystem::filesystem_error&) {
        return;
    }
}

void removeIfAbandoned(const Path& file) noexcept {
    const FileDescriptor fd(
        ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    const bool ours = fd && ::fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                      status.st_uid == ::geteuid();
    // A shared lock does for an end to the writer's, and is to be had on a file opened to be read.
    if (ours && ::flock(fd.get(), LOCK_SH | LOCK_NB) == 0) ::unlink(file.c_str());
}

} // namespace

// Short and independent of the target's name, which may be as long as names can be.
std::string temporaryName() {
    const Secret random = SecureRandom::bytes(randomBytes);
    std::string name(temporaryPrefix);
    for (const std::uint8_t byte : random.bytes()) {
        name += hexDigits[byte >> 4];
        name += hexDigits[byte & 15];
    }
    return name.append(temporarySuffix);
}

bool isTemporaryName(std::string_view name) {
    if (!name.starts_with(temporaryPrefix) || !name.ends_with(temporarySuffix)) return false;
    name.remove_prefix(temporaryPrefix.size());
    name.remove_suffix(temporarySuffix.size());
    return name.size() == 2 * randomBytes &&
           name.find_first_not_of(hexDigits) == std::string_view::npos;
}

void replace(const Path& target, std::string_view contents, mode_t mode) {
    const Path parent = directoryOf(target);
    const FileDescriptor directory = openDirectory(parent);
    const Former former(target);
    Temporary file(parent);
    file.write(contents);
    file.takePlaceOf(target, mode);
    try {
        syncNames(directory, parent);
    } catch (const std::filesystem::filesystem_error&) {
        takeBack(file, former, target);
        throw;
    }
}

void remove(const Path& file) {
    const Path parent = directoryOf(file);
    const FileDescriptor directory = openDirectory(parent);
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) fail("cannot remove", file);
    syncNames(directory, parent);
}

void removeAbandoned(const Path& directory) noexcept {
    std::error_code error; // what cannot be listed has nothing that could be removed
    std::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
        if (isTemporaryName(entry->path().filename().native())) removeIfAbandoned(entry->path());
}

void syncFile(const Path& file) {
    const FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) fail("cannot open", file);
    sync(fd.get(), file);
}

void syncDirectory(const Path& directory) {
    syncNames(openDirectory(directory), directory);
}

} // namespace DurableFile
