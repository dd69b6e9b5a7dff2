#include "TreeComparison.h"

#include "CheckedDeletion.h"
#include "DurableFile.h"
#include "EntryMetadata.h"
#include "FileDescriptor.h"
#include "OperationCancelled.h"
#include "Platform.h"
#include "TreeWalk.h"
#include "VaultEngine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace TreeComparison {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t mostNamed = 3;

bool isSame(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool isAt(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/// Both are of one entry, which was not changed from one to the other.
bool isUnchanged(const struct stat& before, const struct stat& after) {
    return isSame(before, after) && before.st_size == after.st_size &&
           isAt(Platform::modificationTime(before), Platform::modificationTime(after)) &&
           isAt(Platform::changeTime(before), Platform::changeTime(after));
}

/// Fills the buffer as far as the file reaches; nothing when it cannot be read.
std::optional<std::size_t> fill(int fd, std::span<char> buffer) {
    std::size_t length = 0;
    while (length < buffer.size()) {
        const ssize_t got = ::read(fd, buffer.data() + length, buffer.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    return length;
}

/// The tree to compare with: entries by their relative path, without following any link in it.
class Reference {
public:
    explicit Reference(const fs::path& root)
        : root_(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (!root_)
            throw fs::filesystem_error("cannot open", root,
                                       std::error_code(errno, std::generic_category()));
    }

    /// The directory by that relative path, until the next call; -1 when there is none.
    int directory(const fs::path& path) {
        if (path.empty()) return root_.get();
        if (current_ && path == currentPath_) return current_.get();
        FileDescriptor found(::openat(root_.get(), ".", flags));
        for (const fs::path& name : path) found.reset(::openat(found.get(), name.c_str(), flags));
        current_ = std::move(found);
        currentPath_ = path;
        return current_.get();
    }

private:
    static constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

    FileDescriptor root_;
    FileDescriptor current_;
    fs::path currentPath_;
};

class Comparison : public TreeWalk {
public:
    Comparison(fs::path tree, const fs::path& reference, Files files,
               const Cancellation* cancellation)
        : tree_(std::move(tree)), reference_(reference), files_(files),
          cancellation_(cancellation) {}

    Differences run() {
        walk(tree_);
        return std::move(differences_);
    }

protected:
    void file(int directory, const std::string& name, const struct stat& status) override {
        stopIfCancelled();
        if (!isFileAlike(directory, name, status)) differs(name);
    }
    void enter(int directory, const std::string& name, const struct stat& status) override {
        stopIfCancelled();
        if (!isFolderAlike(directory, name, status)) differs(name);
    }
    void failed(const std::string& name, int) override { differs(name); }

    bool isFolderAlike(int directory, const std::string& name, const struct stat& status) {
        const fs::path path = relative(name);
        if (isOfSystem(path)) return true;
        const int other = reference_.directory(path);
        struct stat found {};
        if (other >= 0 && files_ == Files::any) return true;
        return other >= 0 && ::fstat(other, &found) == 0 &&
               isAlike(EntryMetadata(directory, name, status), EntryMetadata(other, "", found));
    }

    bool isFileAlike(int directory, const std::string& name, const struct stat& status) {
        const fs::path path = relative(name);
        const bool ofFileManager = S_ISREG(status.st_mode) && name == ".DS_Store";
        if (S_ISSOCK(status.st_mode) || ofFileManager || isOfSystem(path)) return true;
        const int other = reference_.directory(path.parent_path());
        struct stat found {};
        if (other < 0) return false;
        if (::fstatat(other, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0)
            return DurableFile::isTemporaryName(name) &&
                   isAnyAlike({directory, name, status}, other);
        if (files_ == Files::any && isSameType(status, found) &&
            (!S_ISREG(status.st_mode) || isOlder(status, found)))
            return true;
        return isEntryAlike({directory, name, status}, {other, name, found});
    }

    /// An entry of an open directory that is no folder.
    struct Entry {
        int directory;
        std::string name;
        struct stat status;
    };

    bool isEntryAlike(const Entry& own, const Entry& original) {
        if (!isSameType(own.status, original.status)) return false;
        if (S_ISREG(own.status.st_mode)) {
            const FileDescriptor file = open(own);
            const FileDescriptor other = open(original);
            return file && other &&
                   isRegularAlike(file.get(), own.status, other.get(), original.status);
        }
        if (files_ != Files::any &&
            !isAlike(EntryMetadata(own.directory, own.name, own.status),
                     EntryMetadata(original.directory, original.name, original.status)))
            return false;
        return S_ISLNK(own.status.st_mode) ? haveSameTarget(own, original)
                                           : own.status.st_rdev == original.status.st_rdev;
    }

    /// What a deletion was interrupted at has a temporary name, and in the reference its own.
    bool isAnyAlike(const Entry& own, int others) {
        const std::unique_ptr<DIR, int (*)(DIR*)> listing(
            ::fdopendir(::openat(others, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), &::closedir);
        if (!listing) return false;
        while (const dirent* const entry = ::readdir(listing.get())) {
            struct stat found {};
            if (::fstatat(others, entry->d_name, &found, AT_SYMLINK_NOFOLLOW) == 0 &&
                isEntryAlike(own, {others, entry->d_name, found}))
                return true;
        }
        return false;
    }

    static bool isSameType(const struct stat& one, const struct stat& other) {
        return (one.st_mode & S_IFMT) == (other.st_mode & S_IFMT);
    }

    static bool isOlder(const struct stat& own, const struct stat& other) {
        const timespec time = Platform::modificationTime(own);
        const timespec otherTime = Platform::modificationTime(other);
        return !areAlike(time, otherTime) && std::pair(time.tv_sec, time.tv_nsec) <
                                                 std::pair(otherTime.tv_sec, otherTime.tv_nsec);
    }

    /// The files, which `status` and `found` are of, are open for reading.
    virtual bool isRegularAlike(int own, const struct stat& status, int original,
                                const struct stat& found) {
        if (files_ == Files::any)
            return status.st_size == found.st_size && haveSameContents(own, original);
        return mayBeAlike(status, found) &&
               isAlike(EntryMetadata(own, "", status), EntryMetadata(original, "", found)) &&
               haveSameContents(own, original);
    }

    void differs(const std::string& name) {
        ++differences_.count;
        if (differences_.first.size() < mostNamed) differences_.first.push_back(relative(name));
    }

private:
    fs::path relative(const std::string& name) const {
        const std::string path = pathOf(name).native();
        return path.size() <= tree_.native().size() ? "" : path.substr(tree_.native().size() + 1);
    }

    /// Or in something of the system's.
    static bool isOfSystem(const fs::path& path) {
        return !path.empty() && Platform::keepsFilesOnVolumes() &&
               VaultEngine::systemVolumeItems().contains(path.begin()->string());
    }

    /// None when there is another file in its place.
    static FileDescriptor open(const Entry& entry) {
        constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        FileDescriptor file(::openat(entry.directory, entry.name.c_str(), flags));
        struct stat opened {};
        if (file && (::fstat(file.get(), &opened) != 0 || !isSame(entry.status, opened)))
            file.reset();
        return file;
    }

    bool isAlike(const EntryMetadata& own, const EntryMetadata& other) const {
        return files_ == Files::unfinished ? own.isPartOf(other) : own.isLike(other);
    }

    bool mayBeAlike(const struct stat& own, const struct stat& other) const {
        if (files_ == Files::unfinished) return own.st_size <= other.st_size;
        return own.st_size == other.st_size &&
               areAlike(Platform::modificationTime(own), Platform::modificationTime(other));
    }

    static bool haveSameTarget(const Entry& one, const Entry& other) {
        std::array<std::array<char, 4097>, 2> targets;
        const ssize_t length =
            ::readlinkat(one.directory, one.name.c_str(), targets[0].data(), targets[0].size());
        const ssize_t otherLength =
            ::readlinkat(other.directory, other.name.c_str(), targets[1].data(), targets[1].size());
        return length >= 0 && length == otherLength &&
               std::equal(targets[0].begin(), targets[0].begin() + length, targets[1].begin());
    }

    bool haveSameContents(int own, int original) {
        for (;;) {
            stopIfCancelled();
            const auto length = fill(own, buffer_);
            if (!length) return false;
            const std::span<char> part =
                std::span(otherBuffer_)
                    .first(files_ == Files::unfinished ? *length : otherBuffer_.size());
            if (fill(original, part) != length || !isPartAlike(*length)) return false;
            if (*length < buffer_.size()) return true;
        }
    }

    bool isPartAlike(std::size_t length) const {
        const auto end = buffer_.begin() + static_cast<std::ptrdiff_t>(length);
        return std::equal(buffer_.begin(), end, otherBuffer_.begin(), [this](char own, char other) {
            return own == other || (own == 0 && files_ == Files::unfinished);
        });
    }

    void stopIfCancelled() const {
        if (cancellation_ != nullptr && cancellation_->requested()) throw OperationCancelled();
    }

    fs::path tree_;
    Reference reference_;
    Files files_;
    const Cancellation* cancellation_;
    Differences differences_;
    std::vector<char> buffer_ = std::vector<char>(std::size_t{1} << 18);
    std::vector<char> otherBuffer_ = std::vector<char>(std::size_t{1} << 18);
};

class AlikeRemoval final : public Comparison {
public:
    AlikeRemoval(const fs::path& tree, const fs::path& reference, Files files)
        : Comparison(tree, reference, files, nullptr), looksForWriters_(isLocal(tree)),
          deletion_(looksForWriters_ ? &writers_ : nullptr) {}

private:
    static bool isLocal(const fs::path& tree) {
        const FileDescriptor root(::open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return root && Platform::isLocal(root.get());
    }

    void file(int directory, const std::string& name, const struct stat& status) override {
        struct stat now {};
        const bool alike = isFileAlike(directory, name, status) &&
                           ::fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
                           isUnchanged(status, now);
        if (!alike) return differs(name);
        try {
            if (const auto kept = deletion_.remove(directory, name, status)) differs(*kept);
        } catch (const std::system_error& error) {
            throwFailure(name, error.code().value());
        }
    }

    [[noreturn]] void throwFailure(const std::string& name, int errorNumber) const {
        throw fs::filesystem_error("cannot remove", pathOf(name),
                                   std::error_code(errorNumber, std::generic_category()));
    }

    bool isRegularAlike(int own, const struct stat& status, int original,
                        const struct stat& found) override {
        // Of one who writes by mapped memory nothing is seen once he has gone, so look before, too.
        if (isBeingWritten(own) || !Comparison::isRegularAlike(own, status, original, found) ||
            isBeingWritten(own))
            return false;
        struct stat after {};
        return ::fstat(own, &after) == 0 && isUnchanged(status, after);
    }

    bool isBeingWritten(int file) const {
        return looksForWriters_ && writers_.isOpenForWriting(file);
    }

    void enter(int directory, const std::string& name, const struct stat& status) override {
        alike_.resize(depth() + 1);
        alike_.back() = isFolderAlike(directory, name, status);
        const mode_t mode = status.st_mode & 07777;
        if ((mode & S_IRWXU) == S_IRWXU || status.st_uid != ::geteuid() || !alike_.back()) return;
        // Should this fail, then so will what needs it, and what is inside stays.
        [[maybe_unused]] const int result =
            ::fchmodat(directory, name.c_str(), mode | S_IRWXU, AT_SYMLINK_NOFOLLOW);
    }

    void leave(int directory, const std::string& name) override {
        if (!alike_[depth()]) return differs(name);
        if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return;
        // What made it stay has been told, or has come this moment.
        if (errno != ENOTEMPTY && errno != EEXIST) throwFailure(name, errno);
    }

    /// Elsewhere a file that was open just before is not deleted but renamed.
    bool looksForWriters_;
    Platform::WriterCheck writers_;
    CheckedDeletion deletion_;
    std::vector<bool> alike_; ///< by depth, whether the folder is
};

class AlikeRecording final : public Comparison {
public:
    AlikeRecording(const fs::path& tree, const fs::path& reference)
        : Comparison(tree, reference, Files::unfinished, nullptr) {}

    FolderRecord record() {
        run();
        record_.finish();
        return std::move(record_);
    }

private:
    void file(int directory, const std::string& name, const struct stat& status) override {
        if (isFileAlike(directory, name, status)) record_.add(pathHash(name), status);
    }
    void enter(int directory, const std::string& name, const struct stat& status) override {
        if (depth() > 0 && isFolderAlike(directory, name, status))
            record_.add(pathHash(name), status);
    }

    FolderRecord record_;
};

} // namespace

Differences compare(const fs::path& tree, const fs::path& reference, Files files,
                    const Cancellation* cancellation) {
    return Comparison(tree, reference, files, cancellation).run();
}

Differences removeAlike(const fs::path& tree, const fs::path& reference, Files files) {
    return AlikeRemoval(tree, reference, files).run();
}

FolderRecord recordAlike(const fs::path& tree, const fs::path& reference) {
    return AlikeRecording(tree, reference).record();
}

} // namespace TreeComparison
