#include "InterruptedEnding.h"

#include "DurableFile.h"
#include "ErrorText.h"
#include "HeldFile.h"
#include "ItemPath.h"
#include "KeyMetadata.h"
#include "KeyStore.h"
#include "OpenVolume.h"
#include "OperationCancelled.h"
#include "Platform.h"
#include "ProcessRunner.h"
#include "TreeComparison.h"
#include "VaultEngine.h"
#include "VaultError.h"

#include <cerrno>
#include <chrono>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

// Finishing and undoing what was interrupted.

namespace InterruptedWork {
namespace {

namespace fs = std::filesystem;
using Contents = OperationNote::Contents;
using Step = OperationNote::Step;
using TreeComparison::Differences;
using TreeComparison::Files;

std::string inQuotes(const std::string& name) {
    return "\"" + name + "\"";
}

/// "a", "b" and 3 more
std::string namesOf(const Differences& differences) {
    std::string text;
    for (const Path& path : differences.first) {
        if (!text.empty()) text += ", ";
        text += inQuotes(path.string());
    }
    const std::size_t others = differences.count - differences.first.size();
    return others == 0 ? text : text + " and " + std::to_string(others) + " more";
}

/// One that was interrupted, taken over.
class Ending {
public:
    Ending(OperationNote note, const std::optional<Credential>& credential,
           const ProgressCallback& progress, Cancellation* cancellation)
        : note_(std::move(note)), contents_(note_.contents()),
          folder_(contents_.directory / contents_.folder),
          item_(contents_.directory / contents_.item),
          image_(contents_.directory / contents_.image), credential_(credential),
          progress_(progress), cancellation_(cancellation) {}

    Outcome finish(State state) {
        switch (state) {
        case State::unfinished:
            requireUselessImage();
            dropImage();
            return {{},
                    "What was left is cleared away. The folder is as it was; protect it again."};
        case State::copied:
        case State::deleting:
            deleteOriginal(state);
            [[fallthrough]];
        case State::unnamed:
            return giveName();
        case State::named:
            return endNamed();
        case State::opened:
        case State::incomplete:
            return removeAnew(state);
        case State::restored:
            return deleteItem();
        case State::keyFileLeft:
            commit();
            DurableFile::remove(KeyStore::path(item_));
            endNote();
            return {folder_, {}};
        default:
            return forget();
        }
    }

    Outcome undo(State state) {
        switch (state) {
        case State::copied:
            requireWholeFolder();
            dropImage();
            return {folder_, "The encrypted copy is cleared away. The folder stays as it is."};
        case State::unfinished:
            requireUselessImage();
            dropImage();
            return {folder_, "What was left is cleared away. The folder is as it was."};
        case State::deleting:
        case State::unnamed:
        case State::named:
            requirePassword(state);
            finish(state);
            return removeNamed();
        case State::opened:
            closeVolume(item_, Force::no);
            endNote();
            return {item_, {}};
        case State::incomplete:
        case State::restored:
            return dropFolder(state);
        case State::keyFileLeft:
            endNote();
            return {{}, "The key file stays."};
        default:
            return forget();
        }
    }

    /// The first half of something that goes on after it, and can still be cancelled then.
    Outcome undoFirst(State state) {
        goesOn_ = true;
        return undo(state);
    }

private:
    const Credential& credential() const {
        if (!credential_) throw VaultError::emptyPassword();
        return *credential_;
    }

    Outcome removeNamed() const {
        const Path folder =
            VaultEngine::removePassword(item_, credential(), progress_, cancellation_);
        if (firstKeyFile_) DurableFile::remove(*firstKeyFile_); // it opens nothing any more
        return {folder, {}};
    }

    /// Before the item gets its name and there is nothing left to undo.
    void requirePassword(State state) const {
        // The item's may have been changed since.
        const bool named = state == State::named && keyRecord(item_);
        VaultEngine::passphrase(named ? item_ : image_, credential(), cancellation_);
    }

    /// What comes now cannot be cancelled, unless more that can be follows it.
    void commit() {
        if (cancellation_ == nullptr) return;
        if (goesOn_) {
            if (cancellation_->requested()) throw OperationCancelled();
            return;
        }
        cancellation_->commit();
        cancellable_ = false;
    }

    void endNote() {
        DurableFile::removeAbandoned(contents_.directory);
        note_.remove();
    }

    /// Nothing is left that could be ended.
    Outcome forget() {
        endNote();
        return {{}, "There is nothing left to be ended; it won't be told again."};
    }

    void say(const char* message) const { progress_({std::nullopt, message, cancellable_}); }

    enum class Force { yes, no };

    /// Closes the volume that an interrupted operation has left open, or is still about to open.
    void closeVolume(const Path& image, Force force) const {
        constexpr std::chrono::milliseconds pause{50};
        constexpr int mostPauses = 200;
        for (int i = 0; i < mostPauses; ++i) {
            detach(image, force);
            if (!Platform::isImageInUse(image)) return;
            // What the operation had started may not have ended yet.
            std::this_thread::sleep_for(pause);
        }
        throw InterruptedWorkError(inQuotes(image.filename().string()) +
                                   " is open and in use. Close it, then try again.");
    }

    /// It may be closing by itself at this moment.
    void detach(const Path& image, Force force) const {
        const auto place = Platform::mountPointOfImage(image);
        if (!place) return;
        const Path& tool = Platform::tools().hdiutil;
        if (ProcessRunner::run(tool, {"detach", *place}).exitCode == 0) return;
        if (force == Force::yes) ProcessRunner::run(tool, {"detach", "-force", *place});
    }

    /// Undoes a protection before its point of no return. The image goes first: its key file alone
    /// is found again by its name.
    void dropImage() {
        closeVolume(image_, Force::yes);
        commit();
        note_.reach(Step::dropping);
        DurableFile::remove(image_);
        DurableFile::remove(KeyStore::path(image_));
        endNote();
    }

    /// Its key file may have been moved, as by who wants to open it by hand.
    void requireUselessImage() const {
        if (!fs::is_directory(fs::symlink_status(folder_)))
            throw InterruptedWorkError(inQuotes(contents_.folder) +
                                       " is no longer there, so the "
                                       "encrypted copy stays: " +
                                       image_.string());
        if (fs::exists(fs::symlink_status(KeyStore::path(image_))))
            throw InterruptedWorkError("The encrypted copy has a key file that cannot be read, so "
                                       "both stay: " +
                                       KeyStore::path(image_).string());
    }

    /// The folder may have been worked in since, and what was changed in it is the user's; but who
    /// deletes something may rely on the encrypted copy.
    void requireWholeFolder() const {
        closeVolume(image_, Force::yes);
        OpenVolume volume(image_, credential_, cancellation_);
        say("Comparing the folder with its encrypted copy…");
        const Differences lacking =
            TreeComparison::compare(volume.root(), folder_, Files::any, cancellation_);
        volume.close();
        if (lacking.count > 0)
            throw InterruptedWorkError(inQuotes(contents_.folder) + " no longer has " +
                                       namesOf(lacking) +
                                       ". Finish this, which keeps the encrypted copy.");
    }

    void deleteOriginal(State state) {
        closeVolume(image_, Force::yes);
        OpenVolume volume(image_, credential_, cancellation_);
        say("Comparing the folder with its encrypted copy…");
        if (state == State::copied) {
            requireNone(
                TreeComparison::compare(folder_, volume.root(), Files::finished, cancellation_));
            struct stat image {};
            if (::lstat(image_.c_str(), &image) != 0)
                throw fs::filesystem_error("cannot look at", image_,
                                           std::error_code(errno, std::generic_category()));
            commit();
            secureImage();
            note_.reach(Step::deleting, image.st_ino);
        }
        commit();
        say("Deleting the original folder…");
        requireNone(TreeComparison::removeAlike(folder_, volume.root(), Files::finished));
        volume.close();
        DurableFile::syncDirectory(contents_.directory);
    }

    /// Nobody knows how much of it was on the disk already.
    void secureImage() const {
        DurableFile::syncFile(image_);
        DurableFile::syncFile(KeyStore::path(image_));
        DurableFile::syncDirectory(contents_.directory);
    }

    void requireNone(const Differences& differences) const {
        if (differences.count == 0) return;
        throw InterruptedWorkError(
            inQuotes(contents_.folder) +
            " holds what is not so in the encrypted copy: " + namesOf(differences) +
            (note_.contents().step(Step::deleting)
                 ? ". Move it to another folder, then finish."
                 : ". Move it to another folder, then finish; or undo this, which keeps the "
                   "folder, and protect it again."));
    }

    Outcome giveName() {
        commit();
        say("Finalizing the encrypted item…");
        closeVolume(image_, Force::yes);
        if (fs::exists(fs::symlink_status(item_))) throw VaultError::alreadyLocked(contents_.item);
        giveKeyFile();
        Platform::renameWithoutReplacing(image_, item_);
        DurableFile::syncDirectory(contents_.directory);
        return endNamed();
    }

    static std::optional<KeyMetadata> keyRecord(const Path& container) {
        const auto text = KeyStore::read(container);
        return text ? KeyMetadata::decode(*text) : std::nullopt;
    }

    /// The item's key file is that of the working image, or is there already.
    void giveKeyFile() {
        if (const auto record = keyRecord(image_)) {
            KeyStore::setAsideFormer(item_, *record);
            KeyStore::write(*record, item_);
        } else if (!keyRecord(item_)) {
            throw InterruptedWorkError("The key file of the encrypted copy is missing: " +
                                       KeyStore::path(image_).string());
        }
    }

    Outcome endNamed() {
        // The password may have been changed since: the item's own key file is the newer one.
        if (!keyRecord(item_)) giveKeyFile();
        const auto former = KeyStore::lastFormer(item_);
        endWorkingKeyFile();
        endNote();
        std::string message = "Your password opens " + inQuotes(contents_.item) +
                              ". To get a recovery key, remove the protection and protect the "
                              "folder again.";
        if (former) message += " " + KeyStore::textOfFormer(*former);
        if (firstKeyFile_)
            message += " " + inQuotes(contents_.item) +
                       " has another key file than the one that it was made with, which is kept "
                       "as " +
                       inQuotes(firstKeyFile_->filename().string()) +
                       ": if your password doesn't open the item, put that in the other's place.";
        if (fs::exists(fs::symlink_status(folder_)))
            message += " " + inQuotes(contents_.folder) +
                       " beside it is another folder, and stays as it is.";
        return {item_, message};
    }

    /// The item's own is another when its password was changed since; or when that one is another
    /// item's, beside which the image was given its name by hand. Nobody can tell which it is.
    void endWorkingKeyFile() {
        const bool same = KeyStore::read(image_) == KeyStore::read(item_);
        // Where files get other numbers at each mount it may be another's.
        if (!same && !isNotedImage(item_)) return;
        if (!same && keyRecord(image_))
            firstKeyFile_ = KeyStore::setAside(image_, item_);
        else
            DurableFile::remove(KeyStore::path(image_));
    }

    bool isNotedImage(const Path& file) const {
        struct stat status {};
        const auto inode = note_.contents().step(Step::deleting);
        return ::lstat(file.c_str(), &status) == 0 && (!inode || status.st_ino == *inode);
    }

    Outcome removeAnew(State state) {
        const Outcome undone = undoFirst(state);
        if (fs::exists(fs::symlink_status(folder_))) throw InterruptedWorkError(undone.message);
        return {VaultEngine::removePassword(item_, credential(), progress_, cancellation_), {}};
    }

    /// Deletes the item of a restored folder if it has nothing that the folder has not: either may
    /// have been worked in since.
    Outcome deleteItem() {
        if (const auto target = targetOfLink(item_)) // only the link would go, with the key file
            throw InterruptedWorkError(inQuotes(contents_.item) +
                                       " is a link by now, so the item stays: " + target->string());
        closeVolume(item_, Force::no);
        requireNothingElseInItem();
        const HeldFile held(item_);
        if (!Platform::reserveImage(held.fd()))
            throw InterruptedWorkError(inQuotes(contents_.item) + " is open. Close it first.");
        commit();
        DurableFile::remove(item_);
        DurableFile::remove(KeyStore::path(item_));
        endNote();
        return {folder_, {}};
    }

    void requireNothingElseInItem() const {
        OpenVolume volume(item_, credential_, cancellation_);
        say("Comparing the item with the folder…");
        const Differences lacking =
            TreeComparison::compare(volume.root(), folder_, Files::finished, cancellation_);
        volume.close();
        // The root of a volume need not be able to keep everything that a folder can.
        const bool onlyRoot = lacking.count == 1 && lacking.first.front().empty();
        if (lacking.count > 0 && !onlyRoot)
            throw InterruptedWorkError(inQuotes(contents_.item) + " has what is not so in " +
                                       inQuotes(contents_.folder) + ": " + namesOf(lacking) +
                                       ". Both stay: look at them, and delete yourself what you "
                                       "don't need.");
    }

    /// Undoes a removal: of the folder everything goes that is in the item as well.
    Outcome dropFolder(State state) {
        closeVolume(item_, Force::no);
        Differences left;
        if (::rmdir(folder_.c_str()) != 0) {
            OpenVolume volume(item_, credential_, cancellation_);
            commit();
            say("Comparing the folder with the item…");
            note_.reach(Step::undoing); // from here on the item must not be deleted
            left = TreeComparison::removeAlike(folder_, volume.root(),
                                               state == State::restored ? Files::finished
                                                                        : Files::unfinished);
            volume.close();
        }
        DurableFile::syncDirectory(contents_.directory);
        endNote();
        if (left.count == 0) return {item_, {}};
        return {item_, inQuotes(contents_.folder) +
                           " still holds what is not so in the item: " + namesOf(left) + "."};
    }

    OperationNote note_;
    Contents contents_;
    Path folder_;
    Path item_;
    Path image_;
    const std::optional<Credential>& credential_;
    const ProgressCallback& progress_;
    Cancellation* cancellation_;
    std::optional<Path> firstKeyFile_; ///< of the item, which has another, where it is now
    bool cancellable_ = true;
    bool goesOn_ = false; ///< what is undone is only the first half
};

Ending takeOver(const Found& found, const std::optional<Credential>& credential,
                const ProgressCallback& progress, Cancellation* cancellation) {
    if (!canBeEnded(found)) throw InterruptedWorkError(text(found));
    auto note = OperationNote::take(found.note, found.contents.directory);
    if (!note || stateOf(note->contents()) != found.state)
        throw InterruptedWorkError("Another program is at work on it. Try again when it has "
                                   "ended.");
    return {std::move(*note), credential, progress, cancellation};
}

} // namespace

Outcome finish(const Found& found, const std::optional<Credential>& credential,
               const ProgressCallback& progress, Cancellation* cancellation) {
    return takeOver(found, credential, progress, cancellation).finish(found.state);
}

Outcome undo(const Found& found, const std::optional<Credential>& credential,
             const ProgressCallback& progress, Cancellation* cancellation) {
    return takeOver(found, credential, progress, cancellation).undo(found.state);
}

Outcome undoFirstHalf(const Found& found, const std::optional<Credential>& credential,
                      const ProgressCallback& progress, Cancellation* cancellation) {
    return takeOver(found, credential, progress, cancellation).undoFirst(found.state);
}

} // namespace InterruptedWork
