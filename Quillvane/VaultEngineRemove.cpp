#include "VaultEngine.h"

#include "DurableFile.h"
#include "ErrorText.h"
#include "HeldFile.h"
#include "InterruptedWork.h"
#include "ItemPath.h"
#include "KeyStore.h"
#include "OperationNote.h"
#include "OperationProgress.h"
#include "Platform.h"
#include "RecordedRemoval.h"
#include "TreeComparison.h"
#include "TreeRemoval.h"
#include "VaultError.h"

#include <cerrno>
#include <optional>
#include <sys/stat.h>
#include <system_error>

// Removing protection: the contents are copied into a new folder beside the item, which stays as
// it is until the copy is verified and on the disk.

namespace VaultEngine {
namespace {

namespace fs = std::filesystem;

class RemoveOperation {
public:
    RemoveOperation(Path item, const ProgressCallback& progress, Cancellation* cancellation)
        : item_(std::move(item)), folder_(item_.parent_path() / item_.stem()),
          progress_(progress, cancellation) {}

    Path run(const Credential& credential) {
        checkItem();
        try {
            const MountInfo mountInfo = mountItem(credential);
            extract(mountInfo);
            eject(mountInfo);
            deleteItem();
        } catch (const OperationCancelled&) {
            if (note_ && !InterruptedWork::settle(*note_))
                throw OperationCancelled::leavingSomething();
            throw;
        } catch (...) {
            if (note_) InterruptedWork::settle(*note_);
            throw;
        }
        InterruptedWork::settle(*note_);
        progress_.report(1.0, "Done. It's a normal folder again.");
        return folder_;
    }

private:
    void checkItem() {
        progress_.stopIfCancelled();
        progress_.report(0.02, "Checking the item…");
        std::error_code error;
        if (!fs::exists(item_, error)) throw VaultError::sourceMissing();
        if (fs::exists(fs::symlink_status(folder_, error)))
            throw VaultError::targetFolderExists(folder_.filename().string());
        holdItem();
    }

    void holdItem() {
        try {
            held_ = HeldFile(item_);
        } catch (const fs::filesystem_error&) {
            return; // it cannot be attached either, and the tool says why
        }
    }

    MountInfo mountItem(const Credential& credential) {
        progress_.report(0.15, "Opening the item…");
        passwordData_ = passwordData(passphrase(item_, credential, progress_.cancellation()));
        progress_.stopIfCancelled();
        beginNote();
        try {
            return attach(item_, passwordData_, /*browsable=*/false, progress_.cancellation());
        } catch (...) {
            // A volume that is open all the same is not ours.
            note_->remove();
            note_.reset();
            throw;
        }
    }

    void beginNote() {
        OperationNote::Contents contents;
        contents.operation = OperationNote::Operation::remove;
        contents.directory = item_.parent_path();
        contents.folder = folder_.filename();
        contents.item = item_.filename();
        note_ = OperationNote::begin(std::move(contents));
    }

    void extract(const MountInfo& mountInfo) {
        try {
            createFolder();
            copyFrom(mountInfo.mountPoint);
            progress_.report(0.82, "Verifying extracted data…");
            if (const auto reason =
                    verifyCopy(mountInfo.mountPoint, folder_, progress_.cancellation()))
                throw VaultError::verificationFailed(*reason);
            Platform::syncCopiedFolder(folder_);
            progress_.commit(); // to undo this takes the volume
        } catch (const VaultError&) {
            cleanUp(mountInfo);
            throw;
        } catch (const OperationCancelled&) {
            cleanUp(mountInfo);
            throw;
        } catch (const std::exception& error) {
            cleanUp(mountInfo);
            throw VaultError::extractFailed(errorText(error));
        }
    }

    void createFolder() {
        progress_.stopIfCancelled();
        progress_.report(0.25, "Creating the folder");
        // Somebody else's folder that appeared meanwhile must not be taken for ours. Nobody else
        // looks in before it has the permissions that it had.
        if (::mkdir(folder_.c_str(), 0700) != 0)
            throw fs::filesystem_error("cannot create", folder_,
                                       std::error_code(errno, std::generic_category()));
        created_.emplace(folder_);
        struct stat made {};
        if (::lstat(folder_.c_str(), &made) != 0)
            throw fs::filesystem_error("cannot look at", folder_,
                                       std::error_code(errno, std::generic_category()));
        note_->reach(OperationNote::Step::made, made.st_ino);
    }

    void copyFrom(const Path& mountPoint) {
        const std::int64_t total = usedBytes(mountPoint);
        const std::int64_t baseline = usedBytes(folder_);
        progress_.report(0.3, "Extracting contents…");
        const auto report = [this](double c) { progress_.reportCopy(c, "Extracting contents… "); };
        const ProcessResult result = ProcessRunner::retryingLaunch([&] {
            return dittoWithProgress(mountPoint, folder_, total, folder_, baseline, report,
                                     progress_.cancellation());
        });
        progress_.stopIfCancelled();
        if (result.exitCode != 0) throw VaultError::extractFailed(trimmed(result.stderrString()));
    }

    /// Best effort; the error that brought us here is the one to tell. What stays is ended later.
    void cleanUp(const MountInfo& mountInfo) {
        auto copied = recordCopiedAndDetach(mountInfo);
        if (!created_) return;
        try {
            // The volume's server may have been what failed.
            if (!copied)
                copied = recordCopiedAndDetach(attach(item_, passwordData_, /*browsable=*/false));
            if (!copied) return;
            RecordedRemoval::Leftovers leftovers;
            RecordedRemoval::remove(*created_, *copied, leftovers);
        } catch (const std::exception&) {
            return; // as above
        }
    }

    /// What was copied so far, if the volume answers. The rest of what is in the folder is somebody
    /// else's.
    std::optional<FolderRecord> recordCopiedAndDetach(const MountInfo& mountInfo) const noexcept {
        std::optional<FolderRecord> copied;
        try {
            if (created_) copied = TreeComparison::recordAlike(folder_, mountInfo.mountPoint);
        } catch (const std::exception&) {
            copied.reset(); // as above
        }
        try {
            detach(mountInfo);
        } catch (const std::exception&) {
            return copied; // as above
        }
        return copied;
    }

    void eject(const MountInfo& mountInfo) {
        progress_.report(0.88, "Ejecting the item…");
        detach(mountInfo);
        try {
            note_->reach(OperationNote::Step::copied);
        } catch (const fs::filesystem_error& error) {
            throw VaultError::extractFailed(errorText(error));
        }
    }

    void deleteItem() {
        progress_.report(0.95, "Deleting the encrypted item…");
        requireSameItem();
        requireFolder();
        try {
            TreeRemoval::remove(item_);
        } catch (const fs::filesystem_error& error) {
            throw VaultError::deleteFailed(item_.string(), errorText(error));
        }
        removeKeyFile();
    }

    /// What came meanwhile is not in the folder, and nobody may be told to delete it.
    void requireSameItem() {
        const std::string name = "\"" + item_.filename().string() + "\"";
        // A program that keeps computers in step may have put a newer one there.
        if (fs::exists(item_) && !held_.isAt(item_))
            throw VaultError::extractFailed(name + " was exchanged for another file meanwhile. It "
                                                   "stays, and so does the folder.");
        if (!Platform::reserveImage(held_.fd()))
            throw VaultError::extractFailed(
                name + " was opened again meanwhile. It stays, and so does the folder.");
    }

    /// Somebody may have taken it for a mistake, and deleted it; there is only the item then.
    void requireFolder() const {
        struct stat status {};
        if (::lstat(folder_.c_str(), &status) != 0 || !created_->is(status))
            throw VaultError::extractFailed("\"" + folder_.filename().string() +
                                            "\" isn't there any more. The item stays.");
    }

    void removeKeyFile() {
        try {
            DurableFile::syncDirectory(item_.parent_path());
        } catch (const fs::filesystem_error&) {
            return; // after a crash the item may be back: keep its key, which the note tells of
        }
        KeyStore::remove(item_);
    }

    Path item_;
    Path folder_;
    Secret passwordData_;
    HeldFile held_; ///< the item as it was found
    std::optional<HeldFolder> created_;
    std::optional<OperationNote> note_;
    OperationProgress progress_;
};

/// Of a link, only the link would go, and the item stay.
void requireNoLink(const Path& item) {
    if (const auto target = targetOfLink(item))
        throw VaultError::extractFailed(
            "\"" + item.filename().string() +
            "\" is a link. Remove the protection of the item itself: " + target->string());
}

} // namespace

Path removePassword(const Path& locked, const Credential& credential,
                    const ProgressCallback& progress, Cancellation* cancellation) {
    const Path item = itemPath(locked);
    requireNoLink(item);
    if (auto restored = InterruptedWork::makeWayToRemove(item, credential, cancellation)) {
        progress({1.0, "Done. It's a normal folder again."});
        return *std::move(restored);
    }
    return RemoveOperation(item, progress, cancellation).run(credential);
}

} // namespace VaultEngine
