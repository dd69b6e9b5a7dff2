#include "DurableFile.h"

#include "FileDescriptor.h"
#include "Platform.h"
#include "SecureRandom.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace DurableFile {
namespace {

using Path = std::filesystem::path;

[[noreturn]] void fail(const char* what, const Path& path) {
    throw std::filesystem::filesystem_error(what, path,
                                            std::error_code(errno, std::generic_category()));
}

Path directoryOf(const Path& file) {
    return file.has_parent_path() ? file.parent_path() : Path(".");
}

// Short and independent of the target's name, which may be as long as names can be.
Path temporaryBeside(const Path& target) {
    const Secret random = SecureRandom::bytes(8);
    std::string name = ".quillvane-";
    for (const std::uint8_t byte : random.bytes()) {
        constexpr char digits[] = "0123456789abcdef";
        name += digits[byte >> 4];
        name += digits[byte & 15];
    }
    return directoryOf(target) / (name + ".tmp");
}

void writeAll(int fd, std::string_view contents, const Path& path) {
    while (!contents.empty()) {
        const ssize_t written = ::write(fd, contents.data(), contents.size());
        if (written >= 0) {
            contents.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            fail("cannot write", path);
        }
    }
}

void sync(int fd, const Path& path) {
    try {
        Platform::fullSync(fd);
    } catch (const std::system_error& error) {
        throw std::filesystem::filesystem_error("cannot sync", path, error.code());
    }
}

void syncAt(const Path& path, int flags) {
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
    if (!fd) fail("cannot open", path);
    sync(fd.get(), path);
}

} // namespace

void replace(const Path& target, std::string_view contents, mode_t mode) {
    const Path temporary = temporaryBeside(target);
    FileDescriptor fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) fail("cannot create", temporary);
    try {
        writeAll(fd.get(), contents, temporary);
        if (::fchmod(fd.get(), mode) != 0) fail("cannot set the mode", temporary);
        sync(fd.get(), temporary);
        fd.reset();
        if (::rename(temporary.c_str(), target.c_str()) != 0) fail("cannot replace", target);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
    syncDirectory(directoryOf(target));
}

void syncFile(const Path& file) {
    syncAt(file, O_NOFOLLOW);
}

void syncDirectory(const Path& directory) {
    syncAt(directory, O_DIRECTORY);
}

} // namespace DurableFile
