#include "ErrorText.h"
#include "ItemPath.h"
#include "OperationCancelled.h"
#include "SecretText.h"
#include "VaultViewModel.h"

#include <utility>

// The part of VaultViewModel that ends operations: what is shown then, and what is kept.

void VaultViewModel::endBusy() {
    isBusy = false;
    running_.end();
    progressFraction.reset();
}

void VaultViewModel::finishLock(const VaultEngine::LockResult& result) {
    wipePasswords();
    endBusy();
    lockFolderURL.clear();
    presentRecoveryKey(result);
    successMessage =
        "Locked. Your folder is protected:\n" + QString::fromStdString(result.container.string());
    if (!result.leftBehind.empty())
        successMessage += "\n\n" + QString::fromStdString(result.leftBehind);
    emit formChanged();
    emit stateChanged();
}

void VaultViewModel::finishOpen(const VaultEngine::OpenResult& result) {
    wipePasswords();
    endBusy();
    remember(result.mountInfo);
    successMessage = QStringLiteral("Opened. Work in the folder, then eject it to lock it again.");
    emit stateChanged();
}

void VaultViewModel::finishOpenElsewhere(const std::filesystem::path& item,
                                         const std::string& mountPoint) {
    wipePasswords();
    endBusy();
    statusMessage.clear();
    const std::filesystem::path folder = resolvedItemPath(item).replace_extension();
    // A Smart Folder is its manager's to close; any other is shown, with the button that closes it.
    if (mountPoint != folder) remember({std::nullopt, mountPoint});
    errorMessage = '"' + QString::fromStdString(folder.filename().string()) + "\" is already open.";
    emit stateChanged();
}

void VaultViewModel::remember(const MountInfo& mountInfo) {
    if (openMountInfo && openMountInfo->mountPoint != mountInfo.mountPoint)
        openedBefore_.push_back(*openMountInfo);
    openMountInfo = mountInfo;
    openedMountPoint = QString::fromStdString(mountInfo.mountPoint);
}

void VaultViewModel::forget(const std::string& mountPoint) {
    std::erase_if(openedBefore_,
                  [&](const MountInfo& opened) { return opened.mountPoint == mountPoint; });
    if (openedMountPoint != QString::fromStdString(mountPoint)) return;
    openMountInfo.reset();
    openedMountPoint.clear();
    if (openedBefore_.empty()) return;
    remember(openedBefore_.back());
    openedBefore_.pop_back();
}

void VaultViewModel::volumeUnmounted(const std::filesystem::path& mountPoint) {
    forget(mountPoint.string());
    emit stateChanged();
}

void VaultViewModel::finishRemove(const std::filesystem::path& restored) {
    wipePasswords();
    endBusy();
    removeImageURL.clear();
    successMessage = "Password removed. It's a normal folder again:\n" +
                     QString::fromStdString(restored.string());
    emit formChanged();
    emit stateChanged();
}

void VaultViewModel::finishChange() {
    wipePasswords();
    endBusy();
    changeImageURL.clear();
    changeUseRecovery = false;
    successMessage = QStringLiteral("Password changed. Use your new password from now on. Your "
                                    "recovery key still works.");
    emit formChanged();
    emit stateChanged();
}

void VaultViewModel::finishClose(const std::string& mountPoint) {
    endBusy();
    forget(mountPoint);
    openImageURL.clear();
    successMessage = QStringLiteral("Locked and ejected.");
    emit formChanged();
    emit stateChanged();
}

void VaultViewModel::finishWithError(const std::exception_ptr& error) {
    wipePasswords();
    endBusy();
    statusMessage.clear();
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& known) {
        errorMessage = QString::fromStdString(errorText(known));
        wasCancelled = dynamic_cast<const OperationCancelled*>(&known) != nullptr;
    }
    emit stateChanged();
}

void VaultViewModel::presentRecoveryKey(const VaultEngine::LockResult& result) {
    recoveryKeyToShow = textOf(result.recoveryKey);
    keyNote_ = result.note;
    emit stateChanged();
}

void VaultViewModel::dismissRecoveryKey() {
    wipeText(recoveryKeyToShow);
    VaultEngine::LockResult shown;
    shown.note = std::exchange(keyNote_, nullptr);
    if (shown.note)
        scope_.start([shown] { VaultEngine::recoveryKeyShown(shown); },
                     [](const std::exception_ptr&) {}); // it throws nothing
    emit stateChanged();
}
