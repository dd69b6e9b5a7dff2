#include "OperationNote.h"

#include "DurableFile.h"
#include "ErrorText.h"
#include "Platform.h"
#include "SecureRandom.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

// Notes are made, listed and taken over under one lock on their directory. So nobody sees a note
// that is half made by a living program, and two programs cannot begin on the same folder.

namespace {

namespace fs = std::filesystem;
using Contents = OperationNote::Contents;
using Step = OperationNote::Step;

constexpr const char* extension = ".note";
constexpr std::array stepWords{"deleting", "done",     "made", "copied",
                               "undoing",  "dropping", "shown"};
constexpr int currentVersion = 1;

[[noreturn]] void fail(const char* what, const fs::path& path) {
    throw fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
}

fs::path notesDirectory() {
    return Platform::stateDirectory() / "operations";
}

/// Makes the directory and those above it as far as they are not there.
void makeDirectory(const fs::path& directory) {
    if (::mkdir(directory.c_str(), 0700) == 0)
        return DurableFile::syncDirectory(directory.parent_path());
    if (errno == EEXIST) return;
    if (errno != ENOENT || !directory.has_relative_path()) fail("cannot create", directory);
    makeDirectory(directory.parent_path());
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) fail("cannot create", directory);
    DurableFile::syncDirectory(directory.parent_path());
}

/// Somebody else's notes would make us delete what they want.
void requireOwn(const fs::path& directory) {
    struct stat status {};
    if (::lstat(directory.c_str(), &status) != 0) fail("cannot look at", directory);
    if (S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() && (status.st_mode & 022) == 0)
        return;
    errno = EPERM;
    fail("is not a directory that only you can change", directory);
}

/// The directory of the notes, locked as long as the object lives. Throws
/// `std::filesystem::filesystem_error`.
class NotesLock {
public:
    NotesLock() : directory_(notesDirectory()) {
        requireOwn(directory_.parent_path());
        requireOwn(directory_);
        fd_.reset(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd_) fail("cannot open", directory_);
        while (::flock(fd_.get(), LOCK_EX) != 0)
            if (errno != EINTR) fail("cannot lock", directory_);
    }
    const fs::path& directory() const noexcept { return directory_; }

private:
    fs::path directory_;
    FileDescriptor fd_;
};

/// File names may be any bytes, JSON holds text alone.
std::string escaped(std::string_view bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7F && c != '%') {
            text += c;
        } else {
            text += {'%', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return text;
}

std::optional<std::string> unescaped(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            bytes += text[i];
            continue;
        }
        unsigned char byte = 0;
        const char* const end = text.data() + std::min(i + 3, text.size());
        const auto [rest, error] = std::from_chars(text.data() + i + 1, end, byte, 16);
        if (error != std::errc() || rest != text.data() + i + 3) return std::nullopt;
        bytes += static_cast<char>(byte);
        i += 2;
    }
    return bytes;
}

std::string firstLine(const Contents& contents) {
    const bool protect = contents.operation == OperationNote::Operation::protect;
    const nlohmann::ordered_json record{{"version", currentVersion},
                                        {"operation", protect ? "protect" : "remove"},
                                        {"directory", escaped(contents.directory.native())},
                                        {"directoryInode", contents.directoryInode},
                                        {"directoryBirth", contents.directoryBirth},
                                        {"folder", escaped(contents.folder)},
                                        {"item", escaped(contents.item)},
                                        {"image", escaped(contents.image)},
                                        {"originalInode", contents.originalInode},
                                        {"originalBirth", contents.originalBirth}};
    return record.dump() + "\n";
}

/// A member as the bytes of a file name, which leads nowhere else; or of an absolute path.
std::optional<std::string> bytesOf(const nlohmann::json& record, const char* member) {
    const auto found = record.find(member);
    if (found == record.end() || !found->is_string()) return std::nullopt;
    auto bytes = unescaped(found->get<std::string>());
    const bool path = std::string_view(member) == "directory";
    if (!bytes || bytes->find('\0') != std::string::npos) return std::nullopt;
    if (path ? !bytes->starts_with('/') : bytes->find('/') != std::string::npos)
        return std::nullopt;
    return *bytes == "." || *bytes == ".." ? std::nullopt : bytes;
}

std::optional<Contents> contentsOfFirstLine(std::string_view line) {
    const auto record = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
    if (!record.is_object() || record.value("version", nlohmann::json()) != currentVersion)
        return std::nullopt;
    const auto operation = bytesOf(record, "operation");
    const auto directory = bytesOf(record, "directory");
    const auto folder = bytesOf(record, "folder");
    const auto item = bytesOf(record, "item");
    const auto image = bytesOf(record, "image");
    const auto directoryInode = record.value("directoryInode", nlohmann::json());
    const auto directoryBirth = record.value("directoryBirth", nlohmann::json(0));
    const auto originalInode = record.value("originalInode", nlohmann::json());
    const auto originalBirth = record.value("originalBirth", nlohmann::json(0));
    if (!operation || !directory || !folder || folder->empty() || !item || item->empty() ||
        !image || !directoryInode.is_number_unsigned() || !directoryBirth.is_number_integer() ||
        !originalInode.is_number_unsigned() || !originalBirth.is_number_integer())
        return std::nullopt;
    const bool protect = *operation == "protect";
    if (protect == image->empty()) return std::nullopt;
    return Contents{.operation = protect ? OperationNote::Operation::protect
                                         : OperationNote::Operation::remove,
                    .directory = *directory,
                    .directoryInode = directoryInode.get<std::uint64_t>(),
                    .directoryBirth = directoryBirth.get<std::int64_t>(),
                    .folder = *folder,
                    .item = *item,
                    .image = *image,
                    .originalInode = originalInode.get<std::uint64_t>(),
                    .originalBirth = originalBirth.get<std::int64_t>(),
                    .steps = {}};
}

/// A deletion that begins revokes that the image is not needed: an undoing that was interrupted may
/// be followed by finishing.
void addStep(Step step, std::uint64_t number, Contents& contents) {
    if (step == Step::deleting) contents.steps.erase(Step::dropping);
    contents.steps[step] = number;
}

void readStep(std::string_view line, Contents& contents) {
    const std::string_view word = line.substr(0, line.find(' '));
    std::uint64_t number = 0;
    if (word.size() < line.size())
        std::from_chars(line.data() + word.size() + 1, line.data() + line.size(), number);
    for (std::size_t i = 0; i < stepWords.size(); ++i)
        if (word == stepWords[i]) addStep(static_cast<Step>(i), number, contents);
}

/// Nothing when the first line is no note's.
std::optional<Contents> parse(std::string_view text) {
    std::optional<Contents> contents;
    for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos;
         text.remove_prefix(end + 1)) {
        const std::string_view line = text.substr(0, end);
        if (contents)
            readStep(line, *contents);
        else if (!(contents = contentsOfFirstLine(line)))
            return std::nullopt;
    }
    return contents;
}

/// What is in the file; nothing when it cannot be read.
std::optional<std::string> read(int fd) {
    constexpr std::size_t largestBytes = 1 << 16; // far more than a path can be long
    std::string text(largestBytes, '\0');
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t got =
            ::pread(fd, text.data() + length, text.size() - length, static_cast<off_t>(length));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    text.resize(length);
    return text;
}

void append(int fd, std::string_view line, const fs::path& file) {
    struct stat status {};
    // What nobody will find is not noted.
    if (::lstat(file.c_str(), &status) != 0) fail("cannot look at", file);
    while (!line.empty()) {
        const ssize_t written = ::write(fd, line.data(), line.size());
        if (written >= 0)
            line.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            fail("cannot write", file);
    }
    try {
        Platform::fullSync(fd);
    } catch (const std::system_error& error) {
        throw fs::filesystem_error("cannot sync", file, error.code());
    }
}

FileDescriptor openNote(const fs::path& file) {
    FileDescriptor fd(
        ::open(file.c_str(), O_RDWR | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) fd.reset();
    return fd;
}

bool isFree(int fd) {
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

/// The caller holds the lock of the directory. A note without a whole first line is of a program
/// that was ended before it had changed anything, and goes. Others stay, also those that say
/// nothing to us: a newer program may have made them, or the disk may be readable again later.
std::vector<OperationNote::Entry> entriesOf(const fs::path& directory) {
    std::vector<OperationNote::Entry> entries;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() != extension) continue;
        const FileDescriptor fd = openNote(entry->path());
        if (!fd) continue;
        const bool interrupted = isFree(fd.get());
        const auto text = read(fd.get());
        if (!text) continue;
        if (auto contents = parse(*text))
            entries.push_back({entry->path().stem().string(), interrupted, std::move(*contents)});
        else if (interrupted && text->find('\n') == std::string::npos)
            ::unlink(entry->path().c_str());
    }
    return entries;
}

std::string newId() {
    const Secret random = SecureRandom::bytes(16);
    std::string id;
    for (const std::uint8_t byte : random.bytes()) {
        constexpr char digits[] = "0123456789abcdef";
        id += {digits[byte >> 4], digits[byte & 15]};
    }
    return id;
}

std::uint64_t inodeOf(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) fail("cannot look at", path);
    return status.st_ino;
}

void fillIn(Contents& contents) {
    contents.directory = fs::canonical(contents.directory);
    contents.directoryInode = inodeOf(contents.directory);
    contents.directoryBirth = Platform::birthTime(contents.directory);
    const bool protect = contents.operation == OperationNote::Operation::protect;
    const fs::path original = contents.directory / (protect ? contents.folder : contents.item);
    contents.originalInode = inodeOf(original);
    contents.originalBirth = Platform::birthTime(original);
}

bool sameFolder(const Contents& a, const Contents& b) {
    return a.directoryInode == b.directoryInode && a.directory == b.directory &&
           a.folder == b.folder;
}

} // namespace

std::optional<std::uint64_t> OperationNote::Contents::step(Step which) const {
    const auto found = steps.find(which);
    return found == steps.end() ? std::nullopt : std::optional(found->second);
}

std::vector<OperationNote::Entry> OperationNote::all() {
    try {
        const NotesLock lock;
        return entriesOf(lock.directory());
    } catch (const std::system_error&) {
        return {}; // as a rule there are none: nobody has made the directory yet
    }
}

OperationNote OperationNote::begin(Contents contents) {
    try {
        fillIn(contents);
        makeDirectory(notesDirectory());
        const NotesLock lock;
        for (const Entry& entry : entriesOf(lock.directory()))
            if (!entry.interrupted && sameFolder(entry.contents, contents))
                throw OperationNoteError("Another program is at work on \"" + contents.folder +
                                         "\". Wait until it has ended.");
        const Path file = lock.directory() / (newId() + extension);
        FileDescriptor fd(::open(
            file.c_str(), O_RDWR | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd) fail("cannot create", file);
        OperationNote note(file, std::move(fd), std::move(contents));
        try {
            if (!isFree(note.fd_.get())) fail("cannot lock", file);
            append(note.fd_.get(), firstLine(note.contents_), file);
            DurableFile::syncDirectory(lock.directory());
        } catch (const fs::filesystem_error&) {
            note.remove();
            throw;
        }
        return note;
    } catch (const std::system_error& error) {
        const auto* inFile = dynamic_cast<const fs::filesystem_error*>(&error);
        throw OperationNoteError("Nothing was changed, because the operation couldn't be noted in "
                                 "case it is interrupted.\n" +
                                 (inFile ? inFile->path1().string() + ": " : "") +
                                 errorText(error));
    }
}

std::optional<OperationNote> OperationNote::take(const std::string& id, Path directory) {
    try {
        const NotesLock lock;
        const Path file = lock.directory() / (id + extension);
        FileDescriptor fd = openNote(file);
        if (!fd || !isFree(fd.get())) return std::nullopt;
        const auto text = read(fd.get());
        auto contents = text ? parse(*text) : std::nullopt;
        if (!contents) return std::nullopt;
        if (!directory.empty()) contents->directory = std::move(directory);
        return OperationNote(file, std::move(fd), std::move(*contents));
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

OperationNote::OperationNote(Path file, FileDescriptor fd, Contents contents)
    : file_(std::move(file)), fd_(std::move(fd)), contents_(std::move(contents)) {}

void OperationNote::reach(Step step, std::uint64_t number) {
    // A line before it may have been cut short; an empty one means nothing.
    const std::string word = stepWords.at(static_cast<std::size_t>(step));
    append(fd_.get(), "\n" + word + " " + std::to_string(number) + "\n", file_);
    addStep(step, number, contents_);
}

bool OperationNote::remove() noexcept {
    const auto sync = [](const Path& directory) {
        try {
            DurableFile::syncDirectory(directory);
            return true;
        } catch (const std::exception&) {
            return false;
        }
    };
    if (!sync(contents_.directory)) return false;
    const bool removed = ::unlink(file_.c_str()) == 0 || errno == ENOENT;
    // Should it come back, it is found once more to tell of nothing.
    sync(file_.parent_path());
    return removed;
}
