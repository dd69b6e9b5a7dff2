#include "InPlaceClose.h"
#include "Platform.h"
#include "SmartFolderManager.h"
#include "SystemEvents.h"
#include "VaultError.h"

#include <algorithm>
#include <memory>
#include <system_error>

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

/// Mounted again meanwhile, or the system does not tell at the moment: the next tick asks again.
bool isStillListed(const std::string& mountPath) {
    try {
        return VaultEngine::isListedAsMounted(mountPath);
    } catch (const std::system_error&) {
        return true;
    }
}

} // namespace

void SmartFolderManager::tick() {
    const Clock::Time now = clock_.now();
    const std::chrono::minutes limit(std::max(timeoutMinutes_, 1));
    const std::vector<Active> entries = active(); // closing one changes the list
    for (const Active& entry : entries) {
        if (now < entry.idleSince) resetIdle(entry.id); // the clock was set back
        if (!isStillListed(entry.mountPath))
            handleExternalUnmount(entry.mountPath);
        else if (now - entry.idleSince >= limit)
            attemptClose(entry, /*automatic=*/true);
        else
            lookAfter(entry);
    }
}

void SmartFolderManager::lookAfter(const Active& entry) {
    // Not here: a server that hangs would take the main thread along.
    if (!lookedAfter_.insert(entry.id).second) return;
    const auto isAlive = std::make_shared<bool>(true);
    offMain([isAlive, place = entry.mountPath] { *isAlive = VaultEngine::isMounted(place); },
            [this, isAlive, id = entry.id](const std::exception_ptr&) { // none: the next tick asks
                lookedAfter_.erase(id);
                if (!*isAlive) handleExternalUnmount(id);
            });
}

void SmartFolderManager::attemptClose(const Active& asked, bool automatic,
                                      const std::optional<QString>& /*reason*/) {
    const Active entry = whereItIs(asked);
    if (!closing_.insert(entry.mountPath).second) return;
    if (!automatic) beginBusy("Closing " + QString::fromStdString(entry.name) + "…");
    const auto result = std::make_shared<InPlaceClosed>();
    offMain([entry, result] { *result = closeInPlace(entry.lockedPath, entry.mountPath); },
            [this, entry, result, automatic](const std::exception_ptr& error) {
                closing_.erase(entry.mountPath);
                if (!error)
                    std::erase_if(leftHidden_, [&](const auto& record) {
                        return record.mountPath == entry.mountPath;
                    });
                if (result->stillHidden)
                    leftHidden_.push_back({entry.name, entry.lockedPath, entry.mountPath});
                if (error)
                    closeFailed(entry, automatic, error);
                else
                    closed(entry, automatic, result->filesLeft);
                endMove();
            });
}

void SmartFolderManager::closed(const Active& entry, bool automatic, bool filesLeft) {
    remove(entry.id);
    endBusy(automatic);
    if (filesLeft)
        return setErrorMessage(
            QString::fromStdString(InPlaceClosed::filesLeftText(entry.mountPath)));
    setSuccessMessage("\"" + QString::fromStdString(entry.name) + "\" closed and encrypted.");
}

void SmartFolderManager::closeFailed(const Active& entry, bool automatic,
                                     const std::exception_ptr& error) {
    if (!isDetachBusy(error)) {
        fail(error, automatic);
        // Its server may have died, and closing it would be tried for ever.
        return lookAfter(entry);
    }
    resetIdle(entry.id);
    endBusy(automatic);
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
    if (isStillListed(id) || follow(id)) return;
    Path item = mountPath;
    item += ".quillvane";
    std::error_code unreadable;
    const auto entry = std::ranges::find(active(), id, &Active::id);
    if (!std::filesystem::exists(item, unreadable)) {
        if (entry == active().end()) return;
        item = entry->lockedPath; // written in another way, as "Docs.QUILLVANE", or gone
    }
    closing_.insert(id);
    offMain([item, id] { VaultEngine::recoverIfOrphaned(item, id); },
            [this, id](const std::exception_ptr&) { // it throws nothing
                closing_.erase(id);
                remove(id);
                endMove();
            });
}

bool SmartFolderManager::follow(const std::string& id) {
    const auto found = std::ranges::find(active(), id, &Active::id);
    if (found == active().end()) return false;
    Active entry = *found;
    try {
        const std::string image =
            imageAtMount_.contains(id) ? imageAtMount_.at(id) : entry.lockedPath;
        const auto place = Platform::placeOfVolumeOf(image);
        if (!place || *place == id) return false;
        const Path item = Path(*place).parent_path() / Path(entry.lockedPath).filename();
        // Else it has been closed, and its item opened as a volume of its own.
        if (!std::filesystem::exists(item) || !store_.claim(*place)) return false;
        imageAtMount_[*place] = image;
        entry.id = entry.mountPath = *place;
        entry.lockedPath = item;
    } catch (const std::system_error&) {
        return true; // the system does not tell at the moment: the next tick asks again
    }
    active_.replace(id, entry);
    managed_.insert(entry.id);
    persist();
    store_.release(id);
    return true;
}

SmartFolderManager::Active SmartFolderManager::whereItIs(const Active& entry) {
    if (isStillListed(entry.mountPath)) return entry;
    const auto found = std::ranges::find(active(), entry.id, &Active::id);
    if (found == active().end()) return entry;
    const auto row = found - active().begin();
    follow(entry.id); // in the same row
    return active()[static_cast<std::size_t>(row)];
}

void SmartFolderManager::endMove() {
    emit moved();
    if (!powerOffWaits_ || isMoving()) return;
    powerOffWaits_ = false;
    events_.readyForPowerOff();
}

void SmartFolderManager::closeAllSynchronouslyBestEffort() {
    // What is under way would otherwise go on without us, and an opened folder stay open.
    creation_.cancel();
    cancelOpening();
    tasks_.finish();
    const std::vector<Active> entries = active();
    for (const Active& asked : entries) {
        const Active entry = whereItIs(asked);
        try {
            if (std::filesystem::exists(entry.lockedPath))
                VaultEngine::deactivateInPlace(entry.mountPath);
        } catch (const std::exception&) {
            continue; // the next start finds the folder still open, and its record in the list
        }
    }
}
