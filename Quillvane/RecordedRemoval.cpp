#include "RecordedRemoval.h"

#include "Platform.h"
#include "TreeWalk.h"
#include "VaultEngine.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

namespace RecordedRemoval {
namespace {

using Verdict = FolderRecord::Verdict;

class Removal final : public TreeWalk {
public:
    Removal(const HeldFolder& folder, const FolderRecord& record)
        : folder_(folder), record_(record) {}

    Leftovers run() {
        struct stat status {};
        const std::string& name = folder_.name();
        // A folder that is gone may have been renamed, and be somewhere in the clear.
        if (::fstatat(folder_.parent(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            throwFailure(name, errno);
        if (folder_.is(status))
            walk(folder_.parent(), name);
        else
            keep(name);
        return std::move(leftovers_);
    }

private:
    void file(int directory, const std::string& name, const struct stat& status) override {
        const bool ofSystem = depth() == 0 && VaultEngine::systemVolumeItems().contains(name);
        if (!ofSystem && !isStillAsRecorded(directory, name, status)) return keep(name);
        if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) failed(name, errno);
    }

    void enter(int directory, const std::string& name, const struct stat& status) override {
        if (!isRecorded(name, status)) {
            if (depth() < 0) throwFailure(name, ESTALE);
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
        if (errno != ENOTEMPTY && errno != EEXIST) failed(name, errno);
        if (leftovers_.count == 0) keep(name); // something came after the directory was listed
    }

    void failed(const std::string& name, int errorNumber) override {
        switch (errorNumber) {
        case ENOENT:
            return;
        case EXDEV:  // mounted meanwhile
        case ESTALE: // exchanged meanwhile
            return keep(name);
        default:
            throwFailure(name, errorNumber);
        }
    }

    [[noreturn]] void throwFailure(const std::string& name, int errorNumber) const {
        throw std::filesystem::filesystem_error(
            "cannot remove", pathOf(name), std::error_code(errorNumber, std::generic_category()));
    }

    bool isRecorded(const std::string& name, const struct stat& status) const {
        if (depth() < 0) return folder_.is(status);
        return record_.verdictWhileDeleting(pathHash(name), status) == Verdict::asRecorded;
    }

    bool isStillAsRecorded(int directory, const std::string& name, struct stat status) const {
        if (!isRecorded(name, status)) return false;
        if (!S_ISREG(status.st_mode)) return true;
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
    Platform::WriterCheck writers_;
    Leftovers leftovers_;
};

} // namespace

std::string Leftovers::description() const {
    if (count == 0) return {};
    std::string names;
    for (const std::string& name : first) names += (names.empty() ? "\"" : ", \"") + name + "\"";
    if (count > first.size()) names += " and " + std::to_string(count - first.size()) + " more";
    return "Not deleted, because it was added or changed at the last moment: " + names +
           ". It is not in the protected item.";
}

Leftovers remove(const HeldFolder& folder, const FolderRecord& record) {
    return Removal(folder, record).run();
}

} // namespace RecordedRemoval
