#include "KeyStore.h"
#include "Platform.h"
#include "SmartFolderManager.h"
#include "SystemEvents.h"
#include "VaultError.h"

#include <algorithm>

// The part of SmartFolderManager that closes folders: on request, by themselves, all of them, and
// behind its back.

namespace {

bool isDetachBusy(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const VaultError& vaultError) {
        return vaultError.kind() == VaultError::Case::detachBusy;
    } catch (const std::exception&) {
        return false;
    }
}

/// Best effort: the folder is closed whether file managers show its item or not.
void showItem(const std::string& lockedPath) {
    static_cast<void>(Platform::setHidden(lockedPath, false));
    KeyStore::setHidden(lockedPath, false);
}

} // namespace

void SmartFolderManager::tick() {
    const Clock::Time now = clock_.now();
    const std::chrono::minutes limit(std::max(timeoutMinutes_, 1));
    const std::vector<Active> entries = active(); // closing one changes the list
    for (const Active& entry : entries) {
        if (!VaultEngine::isMounted(entry.mountPath))
            handleExternalUnmount(entry.mountPath);
        else if (now - entry.idleSince >= limit)
            attemptClose(entry, /*automatic=*/true);
    }
}

void SmartFolderManager::attemptClose(const Active& entry, bool automatic,
                                      const std::optional<QString>& /*reason*/) {
    if (!closing_.insert(entry.mountPath).second) return;
    if (!automatic) beginBusy("Closing " + QString::fromStdString(entry.name) + "…");
    offMain(
        [entry] {
            VaultEngine::deactivateInPlace(entry.mountPath);
            showItem(entry.lockedPath);
        },
        [this, entry, automatic](const std::exception_ptr& error) {
            closing_.erase(entry.mountPath);
            if (error)
                closeFailed(entry, automatic, error);
            else
                closed(entry);
            endMove();
        });
}

void SmartFolderManager::closed(const Active& entry) {
    remove(entry.id);
    endBusy();
    setSuccessMessage("\"" + QString::fromStdString(entry.name) + "\" closed and encrypted.");
}

void SmartFolderManager::closeFailed(const Active& entry, bool automatic,
                                     const std::exception_ptr& error) {
    if (!isDetachBusy(error)) return fail(error);
    resetIdle(entry.id);
    endBusy();
    if (!automatic)
        setErrorMessage(QStringLiteral(
            "The folder is in use (open files): it will close automatically once it's free."));
}

void SmartFolderManager::resetIdle(const std::string& id) {
    active_.setIdleSince(id, clock_.now());
}

void SmartFolderManager::closeAll(const QString& reason) {
    if (!opening_.empty()) closeWhenOpened_ = reason;
    if (active().empty()) return;
    setStatusMessage("Closing smart folders (" + reason + ")…");
    const std::vector<Active> entries = active();
    for (const Active& entry : entries) attemptClose(entry, /*automatic=*/true, reason);
}

void SmartFolderManager::handleExternalUnmount(const Path& mountPath) {
    const std::string& id = mountPath.native();
    // Another program that manages the folder sees to it by itself.
    if (closing_.contains(id) || store_.claimedElsewhere(id)) return;
    Path item = mountPath;
    item += ".quillvane";
    std::error_code unreadable;
    const auto entry = std::ranges::find(active(), id, &Active::id);
    // The name may be written in another way, as "Docs.QUILLVANE".
    if (!std::filesystem::exists(item, unreadable) && entry != active().end())
        item = entry->lockedPath;
    if (!std::filesystem::exists(item, unreadable)) return remove(id);

    closing_.insert(id);
    offMain([item, id] { VaultEngine::recoverIfOrphaned(item, id); },
            [this, id](const std::exception_ptr&) { // it throws nothing
                closing_.erase(id);
                remove(id);
                endMove();
            });
}

void SmartFolderManager::endMove() {
    emit moved();
    if (!powerOffWaits_ || isMoving()) return;
    powerOffWaits_ = false;
    events_.readyForPowerOff();
}

void SmartFolderManager::closeAllSynchronouslyBestEffort() {
    // What is under way would otherwise go on without us, and an opened folder stay open.
    if (creation_) creation_->request();
    tasks_.finish();
    for (const Active& entry : active()) {
        try {
            VaultEngine::deactivateInPlace(entry.mountPath);
        } catch (const std::exception&) {
            continue; // the next start finds the folder still open, and its record in the list
        }
    }
}
