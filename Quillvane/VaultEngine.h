#pragma once

#include "Cancellation.h"
#include "Credential.h"
#include "Filesystem.h"
#include "MountInfo.h"
#include "ProcessRunner.h"
#include "Progress.h"
#include "Secret.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

class OperationNote;

/// The operations on protected items.
///
/// All are synchronous, keep no state and may run on any thread; a window's would freeze. They fail
/// with `VaultError`, `RecoveryError`, `ProcessLaunchError`, `OperationCancelled`,
/// `InterruptedWorkError`, `OperationNoteError` or `std::filesystem::filesystem_error`; each
/// function says which.
namespace VaultEngine {

using Path = std::filesystem::path;

/// What protecting a folder yields.
struct LockResult {
    Path container;
    /// Grouped Base32 text, to be shown to the user once.
    Secret recoveryKey;
    /// A sentence about what stays in the folder because it came at the last moment and is not in
    /// the item; empty when the folder is gone.
    std::string leftBehind;
    /// Tells later that the recovery key may not have been shown, unless `recoveryKeyShown` ends
    /// it.
    std::shared_ptr<OperationNote> note;
};
/// To be called when the user has seen the recovery key, or can see it now.
void recoveryKeyShown(const LockResult& result) noexcept;

/// What opening an item yields; kept to close the volume later.
struct OpenResult {
    std::string mountPoint;
    MountInfo mountInfo;
};

/// What opening an item in place yields. All three are compared and kept as bytes.
struct SmartMount {
    /// The item's file name without its extension.
    std::string name;
    std::string lockedPath;
    /// Of the folder beside the item that the volume is mounted on.
    std::string mountPath;
};

/// Turns the folder into the item "<folder name>.quillvane" beside it. `cancellation` is honoured
/// until the original begins to be deleted. What an interrupted attempt left is cleared away
/// before; `InterruptedWorkError` when that had begun to delete the original. A folder that changes
/// meanwhile is a failure (verificationFailed) and stays; so does one in which another program
/// writes to a file. Throws `VaultError`, `RecoveryError` (wrapFailed), `ProcessLaunchError`,
/// `OperationCancelled`, `OperationNoteError` with nothing changed, and `std::system_error` when a
/// key file cannot be written.
LockResult lock(const Path& folderURL, const Secret& password, const Secret& confirmPassword,
                Filesystem filesystem, const ProgressCallback& progress,
                Cancellation* cancellation = nullptr);

/// Mounts the item as a browsable volume and shows it. `cancellation` is honoured while the key is
/// derived. Throws `VaultError`, `RecoveryError`, `ProcessLaunchError`, `OperationCancelled`,
/// and `PropertyListError` when the disk-image tool answers nonsense.
OpenResult open(const Path& imageURL, const Credential& credential,
                const ProgressCallback& progress, Cancellation* cancellation = nullptr);

/// Turns the item back into a folder, whose path it returns, and deletes the item. One that is
/// given by a link is refused (extractFailed, with the item's place). `cancellation`
/// is honoured until the item begins to be deleted. What an interrupted attempt left is cleared
/// away before, or finished where only the item was left to delete. Throws what `open` throws,
/// `OperationCancelled`, `InterruptedWorkError`, and `OperationNoteError` with nothing changed.
Path removePassword(const Path& locked, const Credential& credential,
                    const ProgressCallback& progress, Cancellation* cancellation = nullptr);

/// Seals the item's vault key again under `newPassword`. `cancellation` is honoured while the keys
/// are derived. Throws `VaultError` (emptyPassword; notAQuillvane for what is no file;
/// sourceMissing for a link to nothing), `RecoveryError`, `OperationCancelled`, and
/// `std::system_error` when the key file cannot be written; the old one then stays whole.
void changePassword(const Path& container, const Credential& current, const Secret& newPassword,
                    const Cancellation* cancellation = nullptr);

/// Mounts the item on the folder of its name beside it, which is made if it is not there, and shows
/// it. Nothing is left of an attempt that fails. Throws `VaultError` (sourceMissing,
/// targetFolderExists, wrongPassword, attachFailed), `ProcessLaunchError`, and `std::system_error`
/// when the folder cannot be made or the system does not tell what is mounted.
SmartMount activateInPlace(const Path& lockedURL, const Secret& passphrase);
/// Hides the item with its key file and opens it in place; shows them again when that fails and no
/// volume is there. `cancellation` is honoured while the key is derived. Throws what `passphrase`
/// throws, with nothing touched, and what `activateInPlace` throws.
SmartMount openAsFolder(const Path& container, const Credential& credential,
                        const Cancellation* cancellation = nullptr);
/// Ejects the volume mounted at `mountPath`, never by force, and removes the folder if nothing is
/// in it; done as well when another program has just ejected it. The item stays hidden;
/// `recoverIfOrphaned` shows it. Throws `VaultError` (detachBusy, detachFailed) and
/// `ProcessLaunchError`.
void deactivateInPlace(const std::string& mountPath);
/// Unless a volume is, or may be, mounted at `mountPath`: removes the folder there if nothing is in
/// it, and shows the item with its key file. Best effort.
void recoverIfOrphaned(const Path& container, const std::string& mountPath) noexcept;
/// True when file managers leave the item out.
bool isHidden(const Path& url);

/// The item's 20-byte vault key. With a recovery key the key file is not read. With a password it
/// takes as long as the key file asks for, unless it is cancelled. Throws `VaultError`
/// (emptyPassword), `RecoveryError` and `OperationCancelled`.
Secret vaultKey(const Path& container, const Credential& credential,
                const Cancellation* cancellation = nullptr);
/// The text that opens the item's image. Without a readable key file it is the password itself:
/// older items were encrypted with it. Throws like `vaultKey`.
Secret passphrase(const Path& container, const Credential& credential,
                  const Cancellation* cancellation = nullptr);
/// The passphrase as the disk-image tool reads it from its standard input.
Secret passwordData(const Secret& passphrase);

/// Mounts the image at a place that the system chooses, shown to the user if `browsable`. Throws
/// `VaultError`, `ProcessLaunchError`, `PropertyListError`; `OperationCancelled` when the end was
/// requested and nothing was mounted.
MountInfo attach(const Path& imageURL, const Secret& passwordData, bool browsable,
                 Cancellation* cancellation = nullptr);
/// Ejects the volume, by force if it must be; true, or throws `VaultError` (detachFailed) or
/// `ProcessLaunchError`.
bool detach(const MountInfo& mountInfo);
/// Ejects a volume on which something will depend. If it had to be forced, as when its server has
/// died, nobody has seen it closed: the image is opened once more, which must go well, and closing
/// it then, too. Throws what `attach` and `detach` throw.
void closeFilled(const Path& imageURL, const Secret& passwordData, const MountInfo& mountInfo);
/// Asks the file manager to show the volume. Best effort: it is open all the same.
void showVolume(const std::string& mountPoint);
/// True while a volume is mounted exactly at `mountPoint`. Waits for a volume that does not answer.
/// Throws `std::system_error` when the system does not tell what is mounted.
bool isMounted(const std::string& mountPoint);
/// The same as the system's list of mounts has it, be the volume's server dead or hung: never waits
/// for it. Throws `std::system_error` when the system does not tell.
bool isListedAsMounted(const std::string& mountPoint);

/// Regular files below a directory, or the one file given.
struct Tallies {
    std::int64_t count = 0;
    std::int64_t bytes = 0;
};
/// Follows no links; leaves out what cannot be read. Throws `OperationCancelled`.
Tallies tallies(const Path& url, Cancellation* cancellation = nullptr);
/// Bytes that the user may still write to the volume at `url`; 0 when unknown.
std::int64_t availableCapacity(const Path& url);
/// Bytes in use on the volume mounted at `path`; 0 when unknown.
std::int64_t usedBytes(const Path& path);

/// Copies the contents of `from` into `to` with the system's copy tool. Meanwhile `progress`
/// receives the fraction copied, at most 0.98, on a thread of its own: what the volume at
/// `watchMount` has gained over `baselineBytes`, against `totalBytes`. That thread has ended when
/// the function returns. Throws like `ProcessRunner::run`.
ProcessResult dittoWithProgress(const Path& from, const Path& to, std::int64_t totalBytes,
                                const Path& watchMount, std::int64_t baselineBytes,
                                const std::function<void(double)>& progress,
                                Cancellation* cancellation = nullptr);

/// Nothing when every direct entry of `source` exists in `dest`, else the reason for the user.
/// With `skipSystem`, entries in `systemVolumeItems` need not be there.
std::optional<std::string> verifyTopLevel(const Path& source, const Path& dest, bool skipSystem);
/// Nothing when `dest` is a copy of all of `source`, as `dittoWithProgress` has made it, else the
/// reason for the user. What the copy tool has not compared itself is compared here. Throws
/// `OperationCancelled`, and `std::filesystem::filesystem_error` when either is rearranged.
std::optional<std::string> verifyCopy(const Path& source, const Path& dest,
                                      const Cancellation* cancellation = nullptr);
/// False also when the directory cannot be listed.
bool isDirectoryEmpty(const Path& url);

/// Without white space and line breaks at both ends; a fixed text when nothing is left.
std::string trimmed(std::string_view text);
/// True when the disk-image tool's message means that the passphrase did not open the image.
bool refusesPassphrase(std::string_view message);
/// True when the disk-image tool's message means that the volume is in use.
bool reportsBusy(std::string_view message);
/// Names that a volume may carry at its root without the user having put them there.
const std::set<std::string>& systemVolumeItems();

} // namespace VaultEngine
