#include "RecordedRemoval.h"

#include "CheckedDeletion.h"
#include "FolderExamination.h"
#include "Platform.h"
#include "PrintableText.h"
#include "TreeWalk.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <system_error>

namespace RecordedRemoval {
namespace {

using Verdict = FolderRecord::Verdict;

class Removal final : public TreeWalk {
public:
    Removal(const HeldFolder& folder, const FolderRecord& record, Leftovers& leftovers)
        : folder_(folder), record_(record), leftovers_(leftovers),
          // Elsewhere a file that was open just before is not deleted but renamed.
          looksForWriters_(Platform::isLocal(folder.parent())),
          deletion_(looksForWriters_ ? &writers_ : nullptr) {}

    void run() {
        struct stat status {};
        const std::string& name = folder_.name();
        // A folder that is gone may have been renamed, and be somewhere in the clear.
        if (::fstatat(folder_.parent(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            throwFailure(name, errno);
        try {
            walk(folder_.parent(), name);
        } catch (const Exchanged&) {
            keep(name);
        }
    }

private:
    /// Another folder is in the place of the one to be deleted.
    class Exchanged : public std::exception {};

    void file(int directory, const std::string& name, const struct stat& status) override {
        const bool left = depth() == 1 && FolderExamination::mayComeAndChange(name);
        if (!left && !isStillAsRecorded(directory, name, status)) return keep(name);
        try {
            if (const auto kept = deletion_.remove(directory, name, status)) keep(*kept);
        } catch (const std::system_error& error) {
            throwFailure(name, error.code().value());
        }
    }

    void enter(int directory, const std::string& name, const struct stat& status) override {
        keptBefore_.resize(depth() + 1);
        keptBefore_.back() = leftovers_.count;
        entersRecorded_ = isRecorded(name, status);
        if (!entersRecorded_) {
            if (depth() == 0) throw Exchanged();
            return;
        }
        const mode_t mode = status.st_mode & 07777;
        if ((mode & S_IRWXU) == S_IRWXU || status.st_uid != ::geteuid()) return;
        // Should this fail, then so will what needs it, and say why.
        [[maybe_unused]] const int result =
            ::fchmodat(directory, name.c_str(), mode | S_IRWXU, AT_SYMLINK_NOFOLLOW);
    }

    void leave(int directory, const std::string& name) override {
        struct stat status {};
        const bool there = ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (there && !isRecorded(name, status)) return keep(name);
        if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return;
        if (errno != ENOTEMPTY && errno != EEXIST) throwFailure(name, errno);
        // Unless what is in it was kept, something came after the directory was listed.
        if (leftovers_.count == keptBefore_[depth()]) keep(name);
    }

    void failed(const std::string& name, int errorNumber) override {
        if (errorNumber == ENOENT) return;
        // Mounted or exchanged meanwhile, or a folder that came meanwhile and is closed to us.
        if (errorNumber == EXDEV || errorNumber == ESTALE || !entersRecorded_) return keep(name);
        throwFailure(name, errorNumber);
    }

    [[noreturn]] void throwFailure(const std::string& name, int errorNumber) const {
        throw std::filesystem::filesystem_error(
            "cannot remove", pathOf(name), std::error_code(errorNumber, std::generic_category()));
    }

    bool isRecorded(const std::string& name, const struct stat& status) const {
        if (depth() == 0) return folder_.is(status);
        return record_.verdictWhileDeleting(pathHash(name), status) == Verdict::asRecorded;
    }

    bool isStillAsRecorded(int directory, const std::string& name, struct stat status) const {
        if (!isRecorded(name, status)) return false;
        if (!S_ISREG(status.st_mode) || !looksForWriters_) return true;
        const FileDescriptor opened(::openat(
            directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (!opened) return errno == ENOENT; // gone meanwhile: nothing to keep
        return !writers_.isOpenForWriting(opened.get()) && ::fstat(opened.get(), &status) == 0 &&
               isRecorded(name, status);
    }

    void keep(const std::string& name) {
        if (++leftovers_.count <= Leftovers::namedEntries)
            leftovers_.first.push_back(pathOf(name).string());
    }

    const HeldFolder& folder_;
    const FolderRecord& record_;
    Leftovers& leftovers_;
    bool looksForWriters_;
    bool entersRecorded_ = true;          ///< the directory that is being entered, or was last
    std::vector<std::size_t> keptBefore_; ///< by depth, how much was kept before a directory
    Platform::WriterCheck writers_;
    CheckedDeletion deletion_;
};

} // namespace

std::string Leftovers::description() const {
    if (count == 0) return {};
    std::string names;
    for (const std::string& name : first)
        names += (names.empty() ? "\"" : ", \"") + printable(name) + "\"";
    if (count > first.size()) names += " and " + std::to_string(count - first.size()) + " more";
    return "Not deleted, because it was added or changed at the last moment: " + names +
           ". The protected item may lack its last changes.";
}

void remove(const HeldFolder& folder, const FolderRecord& record, Leftovers& leftovers) {
    Removal(folder, record, leftovers).run();
}

} // namespace RecordedRemoval
