#include "CheckedDeletion.h"

#include "DurableFile.h"
#include "FileDescriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>

namespace {

bool isAt(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/// Renaming an entry changes nothing but the time of change of what can be seen of it.
bool isSameButForName(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino &&
           one.st_mode == other.st_mode && one.st_uid == other.st_uid &&
           one.st_gid == other.st_gid && one.st_size == other.st_size &&
           isAt(Platform::modificationTime(one), Platform::modificationTime(other));
}

[[noreturn]] void fail(int error) {
    throw std::system_error(error, std::generic_category());
}

std::optional<std::string> removeByName(int directory, const std::string& name) {
    if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) fail(errno);
    return std::nullopt;
}

bool exists(int directory, const std::string& name) {
    struct stat status {};
    return ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT;
}

/// Gives an entry its name back; the name that it has then.
std::string putBack(int directory, const std::string& temporary, const std::string& name) {
    constexpr int mostNames = 100;
    for (int number = 0; number < mostNames; ++number) {
        std::string tried = number == 0 ? name : name + "." + std::to_string(number);
        // Unlike a rename, this takes no other file's place.
        if (::linkat(directory, temporary.c_str(), directory, tried.c_str(), 0) == 0) {
            ::unlinkat(directory, temporary.c_str(), 0); // a second name loses nothing by staying
            return tried;
        }
        // Some file systems have no second names, and a folder never has.
        if (errno == EEXIST || exists(directory, tried)) continue;
        if (::renameat(directory, temporary.c_str(), directory, tried.c_str()) == 0) return tried;
        fail(errno);
    }
    fail(EEXIST);
}

} // namespace

std::optional<std::string> CheckedDeletion::remove(int directory, const std::string& name,
                                                   const struct stat& status) const {
    FileDescriptor file;
    // To open a FIFO or a device can do something to it, and nothing can be saved into it.
    if (S_ISREG(status.st_mode))
        file.reset(::openat(directory, name.c_str(),
                            O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    // So that nobody takes it for abandoned; where there are no locks, nobody gets one to do so.
    if (file) static_cast<void>(::flock(file.get(), LOCK_EX | LOCK_NB));

    const std::string temporary = DurableFile::temporaryName();
    if (::renameat(directory, name.c_str(), directory, temporary.c_str()) != 0) {
        if (errno == ENOENT) return std::nullopt; // what takes the name now was never looked at
        return removeByName(directory, name);
    }
    if (!isUnchanged(directory, temporary, status, file.get()))
        return putBack(directory, temporary, name);
    if (::unlinkat(directory, temporary.c_str(), 0) != 0) {
        const int error = errno;
        putBack(directory, temporary, name);
        fail(error);
    }
    return std::nullopt;
}

bool CheckedDeletion::isUnchanged(int directory, const std::string& name, const struct stat& status,
                                  int file) const {
    struct stat now {};
    return !(file >= 0 && writers_ != nullptr && writers_->isOpenForWriting(file)) &&
           ::fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
           isSameButForName(status, now);
}
