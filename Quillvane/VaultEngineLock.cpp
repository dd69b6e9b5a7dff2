#include "VaultEngine.h"

#include "Base32.h"
#include "DurableFile.h"
#include "ErrorText.h"
#include "Fatal.h"
#include "FolderExamination.h"
#include "HeldFile.h"
#include "InterruptedWork.h"
#include "ItemPath.h"
#include "KeyStore.h"
#include "OperationNote.h"
#include "OperationProgress.h"
#include "Platform.h"
#include "RecordedRemoval.h"
#include "SecureRandom.h"
#include "TreeRemoval.h"
#include "VaultError.h"
#include "VaultKeys.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <system_error>

// Protecting a folder: an image is made under a hidden working name beside the folder and filled;
// the folder is deleted; the image takes its final name. The image always has a key file beside it
// by the time the folder goes: under the working name first, under the final name before it gets
// that name. So whatever ends the operation, the folder is there or its password opens the image.
//
// The folder's entries are recorded before they are copied and looked at once more before the first
// is deleted: what looks the same at both moments is what was copied and compared in between. Then
// each is deleted only if it still looks so. What came later stays, and the user is told.

namespace VaultEngine {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t mebibyte = 1048576;
constexpr std::size_t recoveryKeyGroup = 4;

std::string upperCaseUUID() {
    Secret random = SecureRandom::bytes(16);
    const auto bytes = random.writable();
    bytes[6] = (bytes[6] & 0x0F) | 0x40; // version 4, random
    bytes[8] = (bytes[8] & 0x3F) | 0x80; // the standard variant
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        constexpr char digits[] = "0123456789ABCDEF";
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::int64_t imageMebibytes(std::int64_t bytes) {
    constexpr std::int64_t leastSlack = 128 * mebibyte;
    constexpr std::int64_t leastMebibytes = 200;
    const std::int64_t size = addOrStop(bytes, std::max(bytes / 10, leastSlack));
    return std::max(leastMebibytes, addOrStop(size, mebibyte - 1) / mebibyte);
}

bool anythingAt(const Path& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

/// The folder is gone when a name proves too long for the file system: find out before.
void requireUsableName(const Path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 && errno == ENAMETOOLONG)
        throw VaultError::createFailed(systemErrorText(ENAMETOOLONG));
}

class LockOperation {
public:
    LockOperation(Path folder, const Secret& vaultKey, KeyMetadata record, Filesystem filesystem,
                  const ProgressCallback& progress, Cancellation* cancellation)
        : folder_(std::move(folder)), parent_(folder_.parent_path()),
          target_(parent_ / (folder_.filename().string() + ".quillvane")),
          image_(parent_ / (".Quillvane-" + upperCaseUUID() + ".sparseimage")),
          passwordData_(passwordData(VaultKeys::imagePassphrase(vaultKey))),
          record_(std::move(record)), filesystem_(filesystem), progress_(progress, cancellation) {}

    /// What stays of the folder, for the user.
    std::string run() {
        checkFolder();
        const std::int64_t bytes = measure();
        beginNote();
        try {
            createImage(bytes);
            fillImage(bytes);
            secureImage();
            deleteOriginal();
            moveImage();
        } catch (const OperationCancelled&) {
            if (!InterruptedWork::settle(*note_)) throw OperationCancelled::leavingSomething();
            throw;
        } catch (...) {
            InterruptedWork::settle(*note_);
            throw;
        }
        progress_.report(1.0, "Done. Your folder is now protected.");
        return whatStayed();
    }
    const Path& target() const noexcept { return target_; }

    const std::shared_ptr<OperationNote>& note() const noexcept { return note_; }

private:
    std::string whatStayed() const {
        std::string text = leftovers_.description();
        if (!formerKeyFile_) return text;
        if (!text.empty()) text += " ";
        return text + KeyStore::textOfFormer(*formerKeyFile_);
    }

    void beginNote() {
        progress_.stopIfCancelled();
        OperationNote::Contents contents;
        contents.operation = OperationNote::Operation::protect;
        contents.directory = parent_;
        contents.folder = folder_.filename();
        contents.item = target_.filename();
        contents.image = image_.filename();
        note_ = std::make_shared<OperationNote>(OperationNote::begin(std::move(contents)));
    }

    void checkFolder() {
        progress_.stopIfCancelled();
        progress_.report(0.02, "Checking the folder…");
        std::error_code error;
        const auto status = fs::status(folder_, error);
        if (!fs::exists(status)) throw VaultError::sourceMissing();
        if (!fs::is_directory(status)) throw VaultError::notADirectory();
        if (anythingAt(target_)) throw VaultError::alreadyLocked(target_.filename().string());
        requireUsableName(target_);
        requireUsableName(KeyStore::path(target_));
        if (KeyStore::read(target_)) requireUsableName(KeyStore::formerPath(target_));
        holdFolder();
    }

    void holdFolder() {
        try {
            held_.emplace(folder_);
        } catch (const fs::filesystem_error& error) {
            throw VaultError::createFailed(errorText(error));
        }
    }

    /// Bytes in the folder, for which there is room on the volume as far as it tells.
    std::int64_t measure() {
        constexpr std::int64_t headRoom = 64 * mebibyte;
        progress_.report(0.05, "Calculating size…");
        const std::int64_t bytes = tallies(folder_, progress_.cancellation()).bytes;
        const std::int64_t needed = addOrStop(bytes, headRoom);
        const std::int64_t available = availableCapacity(parent_);
        if (available >= 1 && available < needed)
            throw VaultError::insufficientSpace(needed, available);
        recorded_ = FolderExamination::record(*held_, progress_.cancellation());
        return bytes;
    }

    void createImage(std::int64_t bytes) {
        const std::string size = std::to_string(imageMebibytes(bytes)) + "m";
        progress_.stopIfCancelled();
        progress_.report(0.15, "Creating the encrypted vault (AES-256)…");
        const ProcessResult result =
            ProcessRunner::run(Platform::tools().hdiutil,
                               {"create", "-size", size, "-encryption", "AES-256", "-stdinpass",
                                "-volname", folder_.filename().string(), "-fs",
                                commandLineName(filesystem_), "-type", "SPARSE", image_.string()},
                               passwordData_.bytes(), progress_.cancellation());
        if (result.exitCode != 0) {
            removeImage();
            progress_.stopIfCancelled();
            throw VaultError::createFailed(trimmed(result.stderrString()));
        }
        try {
            madeImage_ = HeldFile(image_);
        } catch (const fs::filesystem_error& error) {
            removeImage();
            throw VaultError::createFailed(errorText(error));
        }
    }

    void fillImage(std::int64_t bytes) {
        const MountInfo mountInfo = mountImage();
        try {
            copyInto(mountInfo.mountPoint, bytes);
            progress_.report(0.82, "Verifying your data is safe…");
            if (const auto reason =
                    verifyCopy(folder_, mountInfo.mountPoint, progress_.cancellation()))
                throw VaultError::verificationFailed(*reason);
            progress_.stopIfCancelled();
        } catch (...) {
            detachIgnoringErrors(mountInfo);
            removeImage();
            throw;
        }
        progress_.report(0.88, "Ejecting the vault…");
        closeFilled(image_, passwordData_, mountInfo);
    }

    MountInfo mountImage() {
        try {
            progress_.stopIfCancelled();
            progress_.report(0.30, "Mounting the vault…");
            return attach(image_, passwordData_, /*browsable=*/false, progress_.cancellation());
        } catch (...) {
            removeImage();
            throw;
        }
    }

    void copyInto(const Path& mountPoint, std::int64_t bytes) {
        progress_.stopIfCancelled();
        progress_.report(0.30, "Copying contents into the vault…");
        ProcessResult result;
        try {
            const auto report = [this](double p) { progress_.reportCopy(p, "Copying contents… "); };
            result = dittoWithProgress(folder_, mountPoint, bytes, mountPoint,
                                       usedBytes(mountPoint), report, progress_.cancellation());
        } catch (const std::exception& error) {
            throw VaultError::copyFailed(errorText(error));
        }
        progress_.stopIfCancelled();
        if (result.exitCode != 0) throw VaultError::copyFailed(trimmed(result.stderrString()));
    }

    /// Makes sure that the image survives, and can be opened, before the original goes.
    void secureImage() {
        try {
            progress_.stopIfCancelled();
            syncImage();
            KeyStore::write(record_, image_);
            takeLastLook();
            progress_.commit();
            noteDeletion();
        } catch (...) {
            noteDropping();
            KeyStore::remove(image_);
            removeImage();
            throw;
        }
    }

    /// Lets a key file that should stay alone be told from one whose image was moved.
    void noteDropping() {
        try {
            note_->reach(OperationNote::Step::dropping);
        } catch (const fs::filesystem_error&) {
            return; // best effort: then it is left
        }
    }

    /// From here on the folder is no longer taken for whole.
    void noteDeletion() {
        struct stat image {};
        if (::lstat(image_.c_str(), &image) != 0)
            throw VaultError::copyFailed(systemErrorText(errno));
        note_->reach(OperationNote::Step::deleting, image.st_ino);
    }

    void syncImage() {
        try {
            DurableFile::syncFile(image_);
        } catch (const fs::filesystem_error& error) {
            throw VaultError::copyFailed(errorText(error));
        }
    }

    /// After this there is no way back.
    void takeLastLook() {
        FolderExamination::requireUnchanged(*held_, recorded_, progress_.cancellation());
        if (!madeImage_.isAt(image_))
            throw VaultError::verificationFailed("\"" + image_.filename().string() +
                                                 "\" was exchanged for another file.");
        if (anythingAt(target_)) throw VaultError::alreadyLocked(target_.filename().string());
    }

    void deleteOriginal() {
        progress_.report(0.93, "Deleting the original folder…");
        try {
            RecordedRemoval::remove(*held_, recorded_, leftovers_);
        } catch (const std::system_error&) {
            throw VaultError::deleteFailed(folder_.string(), image_.string(),
                                           leftovers_.description());
        }
    }

    void moveImage() {
        progress_.report(0.97, "Finalizing the encrypted item…");
        bool hasKeyFile = false;
        try {
            if (anythingAt(target_)) TreeRemoval::remove(target_);
            // Beside another's key file the image would be taken for one that has its own.
            formerKeyFile_ = KeyStore::setAsideFormer(target_, record_);
            hasKeyFile = writeKeyFileAhead();
            fs::rename(image_, target_);
        } catch (const fs::filesystem_error& error) {
            if (hasKeyFile) KeyStore::remove(target_);
            putFormerKeyFileBack();
            throw VaultError::renameFailed("Encrypted image available at: " + image_.string() +
                                           "\n" + errorText(error));
        }
        if (!hasKeyFile) writeKeyFile();
        removeWorkingKeyFile();
        noteEnd();
    }

    void noteEnd() {
        try {
            note_->reach(OperationNote::Step::done);
        } catch (const fs::filesystem_error&) {
            return; // the item, with the inode that was noted, says the same
        }
    }

    /// So that the image is never without a key file under its new name. What goes wrong here is
    /// tried again, and reported, once the image has that name.
    bool writeKeyFileAhead() const {
        try {
            KeyStore::write(record_, target_);
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }

    void putFormerKeyFileBack() const noexcept {
        std::error_code ignored; // best effort: it is whole under the other name too
        if (formerKeyFile_) fs::rename(*formerKeyFile_, KeyStore::path(target_), ignored);
    }

    void writeKeyFile() const {
        try {
            KeyStore::write(record_, target_);
        } catch (const std::system_error&) {
            // The disk may be full: the working key file, which has room already, serves as well.
            if (!KeyStore::move(image_, target_)) throw;
        }
    }

    void removeWorkingKeyFile() {
        try {
            DurableFile::syncDirectory(parent_);
        } catch (const fs::filesystem_error&) {
            return; // after a crash the image may be back under its working name: keep its key,
                    // which is dropped with the note
        }
        KeyStore::remove(image_);
    }

    void removeImage() noexcept {
        std::error_code ignored; // best effort; the error that brought us here is the one to tell
        fs::remove(image_, ignored);
    }

    static void detachIgnoringErrors(const MountInfo& mountInfo) {
        try {
            detach(mountInfo);
        } catch (const std::exception&) {
            return; // best effort, as above
        }
    }

    Path folder_;
    Path parent_;
    Path target_;
    Path image_;
    Secret passwordData_;
    KeyMetadata record_;
    std::optional<HeldFolder> held_;
    FolderRecord recorded_; ///< of the folder, as it was before it was copied
    HeldFile madeImage_;    ///< the image as it was made
    RecordedRemoval::Leftovers leftovers_;
    std::optional<Path> formerKeyFile_; ///< of an item that had this name, where it is now
    Filesystem filesystem_;
    std::shared_ptr<OperationNote> note_;
    OperationProgress progress_;
};

} // namespace

LockResult lock(const Path& folderURL, const Secret& password, const Secret& confirmPassword,
                Filesystem filesystem, const ProgressCallback& progress,
                Cancellation* cancellation) {
    if (password.empty()) throw VaultError::emptyPassword();
    if (!(password == confirmPassword)) throw VaultError::passwordMismatch();
    const Secret vaultKey = SecureRandom::bytes(VaultKeys::vaultKeyBytes);
    KeyMetadata record = VaultKeys::seal(vaultKey, password, cancellation);
    const Path folder = itemPath(folderURL);
    if (folder == folder.root_path() || Platform::isPackageOrVolumeRoot(folder))
        throw VaultError::sourceIsPackageOrHidden();
    InterruptedWork::makeWayToProtect(folder, Credential::password(password), cancellation);
    LockOperation operation(folder, vaultKey, std::move(record), filesystem, progress,
                            cancellation);
    std::string leftBehind = operation.run();
    return {operation.target(), Base32::encodeGrouped(vaultKey.bytes(), recoveryKeyGroup),
            std::move(leftBehind), operation.note()};
}

void recoveryKeyShown(const LockResult& result) noexcept {
    if (result.note) InterruptedWork::settleShown(*result.note);
}

} // namespace VaultEngine
