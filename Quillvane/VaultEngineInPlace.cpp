#include "VaultEngine.h"

#include "ItemPath.h"
#include "KeyStore.h"
#include "Platform.h"
#include "VaultError.h"

#include <chrono>
#include <exception>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

// Opening an item on a folder of its name at its own place, and closing it again.

namespace VaultEngine {
namespace {

namespace fs = std::filesystem;

Path mountFolder(const Path& item) {
    return item.parent_path() / item.stem();
}

/// Removes nothing but an empty directory, and never what is mounted there. Best effort.
void removeEmptyFolder(const Path& folder) noexcept {
    ::rmdir(folder.c_str());
}

/// True when the folder was made here, false when an empty one stood there.
bool prepareFolder(const Path& folder) {
    std::error_code missing;
    const fs::file_status status = fs::symlink_status(folder, missing);
    if (status.type() == fs::file_type::not_found) return fs::create_directory(folder);
    // What is mounted through a link is neither found nor removed again.
    const bool taken =
        fs::is_symlink(status) || (fs::is_directory(status) && !isDirectoryEmpty(folder));
    if (taken) throw VaultError::targetFolderExists(folder.filename());
    return false;
}

ProcessResult
runDiskImageTool(const std::vector<std::string>& arguments,
                 std::optional<std::span<const std::uint8_t>> standardInput = std::nullopt) {
    return ProcessRunner::retryingLaunch(
        [&] { return ProcessRunner::run(Platform::tools().hdiutil, arguments, standardInput); });
}

ProcessResult attachAt(const Path& folder, const Path& item, const Secret& passphrase) {
    const Secret line = passwordData(passphrase);
    return runDiskImageTool({"attach", "-stdinpass", "-nobrowse", "-owners", "on", "-mountpoint",
                             folder.string(), item.string()},
                            line.bytes());
}

/// What to believe where the system does not tell whether a volume is there is `otherwise`.
bool isMountedOr(const Path& folder, bool otherwise) {
    try {
        return isMounted(folder);
    } catch (const std::system_error&) {
        return otherwise;
    }
}

/// When the tool has failed, the volume that it had begun to mount goes a moment after it.
void awaitNoVolume(const Path& folder) {
    constexpr auto limit = std::chrono::seconds(1);
    constexpr auto pause = std::chrono::milliseconds(20);
    const auto end = std::chrono::steady_clock::now() + limit;
    while (isMountedOr(folder, false) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(pause);
}

/// The tool says why it fails; the volume is then somebody else's, who has opened it meanwhile.
/// When it says nothing it was killed, and its volume may stay, of which nobody would know. Best
/// effort.
void closeAfterFailure(const Path& folder, const Path& item, const ProcessResult& result) {
    awaitNoVolume(folder);
    if (!result.standardError.empty()) return;
    try {
        const auto mountPoint = Platform::mountPointOfImage(item);
        std::error_code error;
        if (mountPoint && fs::equivalent(*mountPoint, folder, error))
            runDiskImageTool({"detach", folder.string()});
    } catch (const std::exception&) {
        return; // it stays, and the item hidden, until it is closed like any other
    }
}

/// Somebody may have put a link in the folder's place, which the tool has followed then: what the
/// user saves in the folder would not be in the volume.
void requireNoLink(const Path& folder, const Path& item) {
    if (!fs::is_symlink(fs::symlink_status(folder))) return;
    try {
        if (const auto place = Platform::mountPointOfImage(item))
            runDiskImageTool({"detach", *place});
    } catch (const std::exception&) {
        // What to tell is the link; the volume stays until it is closed like any other.
    }
    throw VaultError::targetFolderExists(folder.filename());
}

/// Another program may have closed the volume at the same time. Of one that is gone for another
/// reason, as when its server was killed, nobody knows whether it holds what was saved last. (The
/// tool speaks English, whatever language this program is set to.)
bool wasNotThere(const ProcessResult& detached) {
    return detached.stderrString().find("No such file or directory") != std::string::npos;
}

void setHidden(const Path& item, bool hidden) {
    [[maybe_unused]] const std::error_code ignored = Platform::setHidden(item, hidden);
    KeyStore::setHidden(item, hidden);
}

} // namespace

SmartMount activateInPlace(const Path& lockedURL, const Secret& passphrase) {
    const Path item = itemPath(lockedURL);
    std::error_code unreadable;
    if (!fs::exists(item, unreadable)) throw VaultError::sourceMissing();
    const Path folder = mountFolder(item);
    // Asking also takes away a volume whose server has died, through which nothing can be seen.
    const bool wasOpen = isMounted(folder);
    const bool made = prepareFolder(folder);
    try {
        const ProcessResult result = attachAt(folder, item, passphrase);
        if (result.exitCode != 0) {
            if (!wasOpen) closeAfterFailure(folder, item, result);
            if (refusesPassphrase(result.standardError)) throw VaultError::wrongPassword();
            throw VaultError::attachFailed(trimmed(result.stderrString()));
        }
        requireNoLink(folder, item);
    } catch (...) {
        if (made) removeEmptyFolder(folder);
        throw;
    }
    showVolume(folder);
    return {folder.filename(), item, folder};
}

SmartMount openAsFolder(const Path& container, const Credential& credential,
                        const Cancellation* cancellation) {
    const Path item = itemPath(container);
    const Secret text = passphrase(item, credential, cancellation);
    const bool wasHidden = isHidden(item);
    setHidden(item, true);
    try {
        return activateInPlace(item, text);
    } catch (...) {
        // Another program of the user's may have it open there.
        if (!isMountedOr(mountFolder(item), wasHidden)) setHidden(item, false);
        throw;
    }
}

void deactivateInPlace(const std::string& mountPath) {
    const Path folder = itemPath(mountPath);
    const ProcessResult result = runDiskImageTool({"detach", folder.string()});
    if (result.exitCode != 0 && !(wasNotThere(result) && !isMountedOr(folder, true))) {
        if (reportsBusy(result.standardError)) throw VaultError::detachBusy();
        throw VaultError::detachFailed(trimmed(result.stderrString()));
    }
    removeEmptyFolder(folder);
}

void recoverIfOrphaned(const Path& container, const std::string& mountPath) noexcept {
    try {
        const Path item = itemPath(container);
        const Path folder = itemPath(mountPath);
        if (isMounted(folder)) return;
        removeEmptyFolder(folder);
        setHidden(item, false);
    } catch (const std::exception&) {
        return; // best effort, as the next run tries again
    }
}

bool isHidden(const Path& url) {
    return Platform::isHidden(itemPath(url));
}

} // namespace VaultEngine
