#include "VaultViewModel.h"

#include "ErrorText.h"
#include "FileUrl.h"
#include "OperationCancelled.h"
#include "Platform.h"
#include "SecretText.h"
#include "VaultError.h"

#include <QCoreApplication>
#include <QPointer>

#include <memory>
#include <system_error>
#include <utility>

namespace {

/// None, too, when the system does not tell: there is another error to be told.
std::optional<std::string> mountPointOf(const std::filesystem::path& image) {
    try {
        return Platform::mountPointOfImage(image);
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

} // namespace

VaultViewModel::VaultViewModel(BackgroundTasks& tasks, FilePanels& panels, QObject* parent)
    : QObject(parent), panels_(panels), scope_(tasks) {
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this,
            &VaultViewModel::undoOperation);
}

VaultViewModel::~VaultViewModel() {
    undoOperation();
    blockSignals(true); // no binding is to look at an object that is going
    wipePasswords();
    wipeSmartForms();
    wipeText(recoveryKeyToShow);
}

void VaultViewModel::choose(void (FilePanels::*panel)(const QString&, FilePanels::Chosen),
                            const QString& title, QUrl VaultViewModel::*target) {
    clearMessages();
    (panels_.*panel)(title, [self = QPointer(this), target](const QUrl& url) {
        if (!self) return; // the window went before its panel
        self->*target = url;
        emit self->formChanged();
    });
}

void VaultViewModel::chooseFolderToLock() {
    choose(&FilePanels::chooseFolder, QStringLiteral("Choose the folder to protect"),
           &VaultViewModel::lockFolderURL);
}

void VaultViewModel::chooseImageToOpen() {
    choose(&FilePanels::chooseItem, QStringLiteral("Choose a locked item to open"),
           &VaultViewModel::openImageURL);
}

void VaultViewModel::chooseImageToRemove() {
    choose(&FilePanels::chooseItem,
           QStringLiteral("Choose a locked item to turn back into a folder"),
           &VaultViewModel::removeImageURL);
}

void VaultViewModel::chooseImageToChange() {
    choose(&FilePanels::chooseItem, QStringLiteral("Choose a locked item"),
           &VaultViewModel::changeImageURL);
}

void VaultViewModel::chooseSmartCreateFolder() {
    choose(&FilePanels::chooseFolder, QStringLiteral("Choose a folder to make smart"),
           &VaultViewModel::smartCreateFolderURL);
}

void VaultViewModel::chooseSmartActivateImage() {
    choose(&FilePanels::chooseItem, QStringLiteral("Choose a smart folder"),
           &VaultViewModel::smartActivateURL);
}

void VaultViewModel::performLock() {
    if (lockFolderURL.isEmpty()) return;
    struct Lock {
        std::filesystem::path folder;
        Secret password;
        Secret confirm;
        VaultEngine::LockResult result;
    };
    const auto lock = std::make_shared<Lock>(
        Lock{filePath(lockFolderURL), secretOf(lockPassword), secretOf(lockConfirm), {}});
    beginBusy(QStringLiteral("Preparing…"));
    subject_ = lock->folder;
    perform(
        [lock, report = reporter(), cancellation = running_.cancellation()] {
            lock->result = VaultEngine::lock(lock->folder, lock->password, lock->confirm,
                                             Filesystem::apfs, report, cancellation.get());
        },
        [this, lock] { finishLock(lock->result); });
}

void VaultViewModel::performOpen() {
    if (openImageURL.isEmpty()) return;
    struct Open {
        std::filesystem::path image;
        Credential credential;
        VaultEngine::OpenResult result;
        std::optional<std::string> elsewhere;
    };
    const auto open =
        std::make_shared<Open>(Open{filePath(openImageURL), openCredential(), {}, std::nullopt});
    beginBusy(QStringLiteral("Opening…"));
    subject_ = open->image;
    perform(
        [open, report = reporter(), cancellation = running_.cancellation()] {
            try {
                open->result =
                    VaultEngine::open(open->image, open->credential, report, cancellation.get());
                if (cancellation->requested()) { // too late to be heard
                    VaultEngine::detach(open->result.mountInfo);
                    throw OperationCancelled();
                }
            } catch (const VaultError& error) {
                if (error.kind() != VaultError::Case::attachFailed) throw;
                open->elsewhere = mountPointOf(open->image);
                if (!open->elsewhere) throw;
            }
        },
        [this, open] {
            if (open->elsewhere)
                finishOpenElsewhere(open->image, *open->elsewhere);
            else
                finishOpen(open->result);
        });
}

void VaultViewModel::performRemove() {
    if (removeImageURL.isEmpty()) return;
    struct Remove {
        std::filesystem::path item;
        Credential credential;
        std::filesystem::path restored;
    };
    const auto remove =
        std::make_shared<Remove>(Remove{filePath(removeImageURL), removeCredential(), {}});
    beginBusy(QStringLiteral("Preparing…"));
    subject_ = remove->item;
    perform(
        [remove, report = reporter(), cancellation = running_.cancellation()] {
            remove->restored = VaultEngine::removePassword(remove->item, remove->credential, report,
                                                           cancellation.get());
        },
        [this, remove] { finishRemove(remove->restored); });
}

void VaultViewModel::performChangePassword() {
    if (changeImageURL.isEmpty()) return;
    const bool isEmpty = changeNewPassword.isEmpty();
    if (isEmpty || changeNewPassword != changeNewConfirm) {
        errorMessage = isEmpty ? QStringLiteral("The new password can't be empty.")
                               : QStringLiteral("The two new passwords don't match.");
        emit stateChanged();
        return;
    }
    struct Change {
        std::filesystem::path item;
        Credential current;
        Secret newPassword;
    };
    const auto change = std::make_shared<Change>(
        Change{filePath(changeImageURL), changeCredential(), secretOf(changeNewPassword)});
    beginBusy(QStringLiteral("Changing password…"));
    subject_ = change->item;
    perform(
        [change, cancellation = running_.cancellation()] {
            VaultEngine::changePassword(change->item, change->current, change->newPassword,
                                        cancellation.get());
        },
        [this] { finishChange(); });
}

void VaultViewModel::performClose() {
    if (openMountInfo) {
        beginBusy(QStringLiteral("Closing…"), Cancellable::no);
        eject(*openMountInfo);
    } else if (!openedMountPoint.isEmpty()) {
        beginBusy(QStringLiteral("Closing…"), Cancellable::no);
        closeByMountPoint(openedMountPoint);
    }
}

void VaultViewModel::closeByMountPoint(const QString& path) {
    eject({std::nullopt, path.toStdString()});
}

void VaultViewModel::eject(const MountInfo& mountInfo) {
    perform(
        [mountInfo, report = reporter()] {
            report({std::nullopt, "Closing the vault…"});
            VaultEngine::detach(mountInfo);
            report({1.0, "Closed."});
        },
        [this, mountInfo] { finishClose(mountInfo.mountPoint); });
}

void VaultViewModel::perform(BackgroundTasks::Work work, std::function<void()> finish) {
    scope_.start(std::move(work),
                 [this, finish = std::move(finish)](const std::exception_ptr& error) {
                     if (error)
                         finishWithError(error);
                     else
                         finish();
                     if (!subject_.empty()) emit performed(subject_);
                 });
}

ProgressCallback VaultViewModel::reporter() {
    return scope_.reporter([this](const Progress& progress) {
        if (!running_.hears(progress)) return;
        progressFraction = progress.fraction;
        statusMessage = QString::fromStdString(progress.message);
        emit stateChanged();
    });
}

void VaultViewModel::clearMessages() {
    errorMessage.clear();
    wasCancelled = false;
    successMessage.clear();
    statusMessage.clear();
    emit stateChanged();
}

void VaultViewModel::beginBusy(const QString& message, Cancellable cancellable) {
    clearMessages();
    isBusy = true;
    if (cancellable == Cancellable::yes) running_.begin();
    subject_.clear();
    progressFraction.reset();
    statusMessage = message;
    emit stateChanged();
}

void VaultViewModel::undoOperation() {
    running_.cancel();
}

void VaultViewModel::cancel() {
    if (!cancellable()) return;
    if (running_.cancel()) statusMessage = QStringLiteral("Cancelling…");
    emit stateChanged();
}

void VaultViewModel::wipePasswords() {
    for (QString* text :
         {&lockPassword, &lockConfirm, &openPassword, &openRecoveryKey, &removePassword,
          &removeRecoveryKey, &changeCurrentPassword, &changeRecoveryKey, &changeNewPassword,
          &changeNewConfirm, &smartActivatePassword, &smartActivateRecoveryKey})
        wipeText(*text);
    emit formChanged();
}

void VaultViewModel::wipeSmartForms() {
    for (QString* text : {&smartCreatePassword, &smartCreateConfirm, &smartActivatePassword,
                          &smartActivateRecoveryKey})
        wipeText(*text);
    emit formChanged();
}

namespace {

Credential credential(bool useRecovery, const QString& recoveryKey, const QString& password) {
    if (useRecovery) return Credential::recoveryKey(secretOf(recoveryKey));
    return Credential::password(secretOf(password));
}

} // namespace

Credential VaultViewModel::openCredential() const {
    return credential(openUseRecovery, openRecoveryKey, openPassword);
}

Credential VaultViewModel::removeCredential() const {
    return credential(removeUseRecovery, removeRecoveryKey, removePassword);
}

Credential VaultViewModel::changeCredential() const {
    return credential(changeUseRecovery, changeRecoveryKey, changeCurrentPassword);
}

Credential VaultViewModel::smartActivateCredential() const {
    return credential(smartActivateUseRecovery, smartActivateRecoveryKey, smartActivatePassword);
}
