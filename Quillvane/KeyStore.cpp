#include "KeyStore.h"

#include "DurableFile.h"
#include "FileDescriptor.h"
#include "Platform.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace KeyStore {
namespace {

constexpr std::size_t largestBytes = 1 << 20;

/// Follows a link to no file but the user's own: whoever may write beside the item could lead us to
/// any other.
FileDescriptor openToRead(const std::filesystem::path& file) {
    // Anything may lie in a place that others can write to: do not wait for a FIFO's writer.
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor fd(::open(file.c_str(), flags | O_NOFOLLOW));
    if (fd || errno != ELOOP) return fd;
    fd.reset(::open(file.c_str(), flags));
    struct stat target {};
    if (fd && (::fstat(fd.get(), &target) != 0 || target.st_uid != ::geteuid())) fd.reset();
    return fd;
}

/// How many there are without a gap.
int numberOfFormers(const std::filesystem::path& container) {
    int number = 0;
    while (
        std::filesystem::exists(std::filesystem::symlink_status(formerPath(container, number + 1))))
        ++number;
    return number;
}

} // namespace

std::filesystem::path path(const std::filesystem::path& container) {
    return container.parent_path() / ("." + container.filename().string() + ".qvkeys");
}

std::filesystem::path formerPath(const std::filesystem::path& container, int number) {
    std::filesystem::path name = path(container);
    name += number == 1 ? ".old" : ".old" + std::to_string(number);
    return name;
}

std::optional<std::string> read(const std::filesystem::path& container) {
    const FileDescriptor fd = openToRead(path(container));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    std::string text(largestBytes + 1, '\0');
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t got = ::read(fd.get(), text.data() + length, text.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    if (length > largestBytes) return std::nullopt;
    text.resize(length);
    return text;
}

void write(const KeyMetadata& metadata, const std::filesystem::path& container) {
    constexpr mode_t ownerOnly = 0600;
    DurableFile::removeAbandoned(container.parent_path());
    DurableFile::replace(path(container), metadata.encode(), ownerOnly);
    setHidden(container, true);
}

std::optional<std::filesystem::path> setAsideFormer(const std::filesystem::path& container,
                                                    const KeyMetadata& successor) {
    struct stat status {};
    if (::lstat(path(container).c_str(), &status) != 0 || S_ISDIR(status.st_mode))
        return std::nullopt;
    const auto text = read(container);
    if (text && (!KeyMetadata::decode(*text) || *text == successor.encode())) return std::nullopt;
    return setAside(container, container);
}

std::filesystem::path setAside(const std::filesystem::path& from,
                               const std::filesystem::path& container) {
    auto name = formerPath(container, numberOfFormers(container) + 1);
    Platform::renameWithoutReplacing(path(from), name);
    return name;
}

std::optional<std::filesystem::path> lastFormer(const std::filesystem::path& container) {
    const int number = numberOfFormers(container);
    return number == 0 ? std::nullopt : std::optional(formerPath(container, number));
}

std::string textOfFormer(const std::filesystem::path& setAside) {
    return "There was the key file of another item of this name; its password needs it. It is now "
           "\"" +
           setAside.filename().string() + "\".";
}

bool move(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
    try {
        Platform::renameWithoutReplacing(path(from), path(to));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void remove(const std::filesystem::path& container) noexcept {
    std::error_code ignored; // an orphan does no harm
    std::filesystem::remove(path(container), ignored);
}

void setHidden(const std::filesystem::path& container, bool hidden) {
    const std::filesystem::path file = path(container);
    std::error_code ignored;
    if (!std::filesystem::exists(std::filesystem::symlink_status(file, ignored))) return;
    ignored = Platform::setHidden(file, hidden); // the file stays usable
}

} // namespace KeyStore
