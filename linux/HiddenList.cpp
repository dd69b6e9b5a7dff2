#include "HiddenList.h"

#include "Quillvane/DurableFile.h"
#include "Quillvane/FileDescriptor.h"
#include "Quillvane/Platform.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace HiddenList {
namespace {

using Path = std::filesystem::path;

constexpr std::size_t largestBytes = 1 << 20;
constexpr mode_t newListMode = 0644;

struct List {
    std::string text;
    mode_t mode = newListMode;
};

[[noreturn]] void fail(const char* what, int error) {
    throw std::system_error(error, std::generic_category(), what);
}

Path directoryOf(const Path& item) {
    return item.has_parent_path() ? item.parent_path() : Path(".");
}

/// Nothing when there is no list. A list behind a link is the user's own arrangement, which a
/// replacement would destroy: an error, like anything else that is no plain file.
std::optional<List> read(const Path& file) {
    const FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd && errno == ENOENT) return std::nullopt;
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0) fail("cannot read the hidden list", errno);
    if (!S_ISREG(status.st_mode)) fail("the hidden list is no file", EINVAL);
    List list{std::string(largestBytes + 1, '\0'), static_cast<mode_t>(status.st_mode & 0777)};
    std::size_t length = 0;
    while (length < list.text.size()) {
        const ssize_t got = ::read(fd.get(), list.text.data() + length, list.text.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail("cannot read the hidden list", errno);
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    if (length > largestBytes) fail("the hidden list is too long", EFBIG);
    list.text.resize(length);
    return list;
}

/// `text` without the lines that are `name`, and whether there were any. A text whose last line has
/// no line feed keeps it that way.
std::pair<std::string, bool> without(std::string_view text, std::string_view name) {
    const bool open = !text.ends_with('\n');
    std::string rest;
    bool found = false;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::size_t length = end == std::string_view::npos ? text.size() : end + 1;
        if (text.substr(0, end) == name)
            found = true;
        else
            rest += text.substr(0, length);
        text.remove_prefix(length);
    }
    if (open && rest.ends_with('\n')) rest.pop_back();
    return {rest, found};
}

/// The list with the name, so that `without` gives back exactly what there was: in front, which
/// leaves the end as it is, and alone without a line feed where an empty list stood.
std::string with(const std::optional<List>& list, const std::string& name) {
    if (!list) return name + "\n";
    return list->text.empty() ? name : name + "\n" + list->text;
}

bool needsNoLine(const std::string& name) {
    return name.starts_with('.');
}
bool canBeListed(const std::string& name) {
    return name.find('\n') == std::string::npos;
}

/// Keeps other runs of ours from editing meanwhile. Any program may hold such a lock, for as long
/// as it likes, and some file systems know none: no reason to leave the item visible, or hidden.
void lockForAWhile(int directory) {
    constexpr auto limit = std::chrono::seconds(1);
    constexpr auto pause = std::chrono::milliseconds(10);
    const auto end = std::chrono::steady_clock::now() + limit;
    while (::flock(directory, LOCK_EX | LOCK_NB) != 0 && (errno == EWOULDBLOCK || errno == EINTR) &&
           std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(pause);
}

bool isForLackOfRoom(const std::error_code& error) {
    return error == std::errc::no_space_on_device || error.value() == EDQUOT;
}

/// Puts `rest` in the place of the longer `text`, from where they differ, which takes no room. Only
/// a crash in the middle leaves lines that are neither; a `replace` could not.
void shortenInPlace(const Path& file, std::string_view text, std::string_view rest) {
    const FileDescriptor fd(::open(file.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) fail("cannot open the hidden list", errno);
    auto same = static_cast<std::size_t>(std::ranges::mismatch(text, rest).in2 - rest.begin());
    while (same < rest.size()) {
        const ssize_t put =
            ::pwrite(fd.get(), rest.data() + same, rest.size() - same, static_cast<off_t>(same));
        if (put < 0 && errno != EINTR) fail("cannot shorten the hidden list", errno);
        if (put > 0) same += static_cast<std::size_t>(put);
    }
    if (::ftruncate(fd.get(), static_cast<off_t>(rest.size())) != 0)
        fail("cannot shorten the hidden list", errno);
    Platform::fullSync(fd.get());
}

/// Makes `rest` the list, which is what is left of it without some lines.
void shorten(const Path& file, const List& list, const std::string& rest) {
    try {
        DurableFile::replace(file, rest, list.mode);
    } catch (const std::system_error& error) {
        if (!isForLackOfRoom(error.code())) throw;
        shortenInPlace(file, list.text, rest);
    }
}

} // namespace

void set(const Path& item, bool hidden) {
    const std::string name = item.filename().string();
    if (name.empty()) fail("an item without a name", EINVAL);
    if (needsNoLine(name) || !canBeListed(name)) return;
    struct stat status {};
    if (hidden && ::lstat(item.c_str(), &status) != 0) fail("cannot hide", errno);

    const Path directory = directoryOf(item);
    const FileDescriptor lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock) fail("cannot open the directory", errno);
    lockForAWhile(lock.get());
    DurableFile::removeAbandoned(directory);

    const Path file = directory / ".hidden";
    const std::optional<List> list = read(file);
    const std::string text = list ? list->text : std::string();
    const auto [rest, listed] = without(text, name);
    if (listed == hidden) return;
    if (hidden)
        DurableFile::replace(file, with(list, name), list ? list->mode : newListMode);
    else if (text.ends_with('\n') && rest.empty())
        DurableFile::remove(file);
    else
        shorten(file, *list, rest);
}

bool contains(const Path& item) {
    const std::string name = item.filename().string();
    if (name.empty() || !canBeListed(name)) return false;
    if (needsNoLine(name)) return true;
    try {
        const std::optional<List> list = read(directoryOf(item) / ".hidden");
        return list && without(list->text, name).second;
    } catch (const std::system_error&) {
        return false; // what cannot be read hides nothing
    }
}

} // namespace HiddenList
