#pragma once

#include "Cancellation.h"
#include "Credential.h"
#include "OperationNote.h"
#include "Progress.h"

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// Something that was interrupted stands in the way, or cannot be ended as asked; the text says
/// why. Nothing was lost.
class InterruptedWorkError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Protections and removals that ended without an end, because the program was killed or the
/// computer lost power: what state they left, and how they are finished or undone.
///
/// What state it is is read off the disk each time, with the operation's note to tell what is
/// ours. So finishing and undoing may be interrupted in turn, and begun again. Neither deletes
/// anything that is not elsewhere, whole and on the disk, as far as it is not the user's own wish:
/// a key file whose item is gone.
namespace InterruptedWork {

using Path = std::filesystem::path;

enum class State {
    // Protecting a folder
    unfinished,   ///< the folder is whole; the image is not, and opens for nobody
    copied,       ///< folder and image were whole; the password opens the image
    deleting,     ///< the image is whole; of the folder at least a part is there
    unnamed,      ///< the folder is gone; the image has not got its name yet
    named,        ///< all is done, but the recovery key may not have been shown
    imageMissing, ///< the folder began to be deleted, and the image is not there
    // Removing a protection
    opened,      ///< nothing was made, but the item is open
    incomplete,  ///< the item is whole, the folder beside it perhaps not
    restored,    ///< both were whole
    keyFileLeft, ///< the item is gone, if only from its place, and its key file is left
    itemMissing, ///< the folder is perhaps not whole, and the item is not there
    // Without a note
    strayImage,    ///< a working image that nobody can open
    strayOpenable, ///< a working image with its key file
    strayForeign,  ///< a working image of another user, who may be at work on it
};

struct Found {
    State state;
    /// Its note; empty without one.
    std::string note;
    OperationNote::Contents contents;
};

/// Where the noted operation stands; nothing when it left nothing. Throws `std::system_error` when
/// the system does not tell what is mounted.
std::optional<State> stateOf(const OperationNote::Contents& contents);
/// All that was interrupted, as far as its directory is there. Notes of what left nothing are
/// dropped. Waits for the servers of volumes, and throws like `stateOf`.
std::vector<Found> find();
/// What was interrupted in this directory, and working images that no note tells of.
std::vector<Found> findIn(const Path& directory);

/// One or two sentences for the user.
std::string text(const Found& found);
/// What the user would call it by: the folder, the item, or a working image alone.
Path place(const Found& found);
bool canBeEnded(const Found& found) noexcept;
/// Both throw like `stateOf`.
bool finishNeedsSecret(const Found& found);
bool undoNeedsSecret(const Found& found);

/// What came of it.
struct Outcome {
    /// The item or folder that there is now, when the operation has been carried out.
    std::optional<Path> result;
    /// For the user; may be empty.
    std::string message;
};

/// Brings the operation to its end, or as near to it as can be without asking for more. Throws
/// `InterruptedWorkError` and what the operation itself throws.
Outcome finish(const Found& found, const std::optional<Credential>& credential,
               const ProgressCallback& progress, Cancellation* cancellation = nullptr);
/// Brings back what was there before the operation. Throws the same.
Outcome undo(const Found& found, const std::optional<Credential>& credential,
             const ProgressCallback& progress, Cancellation* cancellation = nullptr);

/// Before a folder is protected: clears away what an interrupted attempt left beside it. Throws
/// `InterruptedWorkError` when the folder had begun to be deleted, or no longer has what is in a
/// whole encrypted copy, which `credential` has to open.
void makeWayToProtect(const Path& folder, const Credential& credential,
                      Cancellation* cancellation = nullptr);
/// Before a protection is removed: clears away what an interrupted attempt left; or finishes that,
/// if only the item was left to delete and has nothing that the folder has not, and returns the
/// folder. Throws `InterruptedWorkError` when it has.
std::optional<Path> makeWayToRemove(const Path& item, const Credential& credential,
                                    Cancellation* cancellation = nullptr);

/// After an operation: drops its note unless it left something that has to be ended; whether it
/// could.
bool settle(OperationNote& note) noexcept;
/// After a protection whose recovery key was shown: the same, and what is left is cleared away
/// later without a word.
void settleShown(OperationNote& note) noexcept;

} // namespace InterruptedWork
