#pragma once

#include "Credential.h"
#include "FilePanels.h"
#include "RunningOperation.h"
#include "TaskScope.h"
#include "VaultEngine.h"

#include <QObject>
#include <QString>
#include <QUrl>

#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The fields and actions of the main window, but for Smart Folders, whose form fields alone are
/// here.
///
/// Everything happens on the main thread; operations run in the background. After every finished
/// operation the passwords and recovery keys of all forms are wiped, but for those of the form that
/// creates a Smart Folder. A URL or text that is absent is empty.
class VaultViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(Mode mode MEMBER mode NOTIFY formChanged)
    Q_PROPERTY(QUrl lockFolderURL MEMBER lockFolderURL NOTIFY formChanged)
    Q_PROPERTY(QString lockPassword MEMBER lockPassword NOTIFY formChanged)
    Q_PROPERTY(QString lockConfirm MEMBER lockConfirm NOTIFY formChanged)
    Q_PROPERTY(QUrl openImageURL MEMBER openImageURL NOTIFY formChanged)
    Q_PROPERTY(QString openPassword MEMBER openPassword NOTIFY formChanged)
    Q_PROPERTY(bool openUseRecovery MEMBER openUseRecovery NOTIFY formChanged)
    Q_PROPERTY(QString openRecoveryKey MEMBER openRecoveryKey NOTIFY formChanged)
    Q_PROPERTY(QUrl removeImageURL MEMBER removeImageURL NOTIFY formChanged)
    Q_PROPERTY(QString removePassword MEMBER removePassword NOTIFY formChanged)
    Q_PROPERTY(bool removeUseRecovery MEMBER removeUseRecovery NOTIFY formChanged)
    Q_PROPERTY(QString removeRecoveryKey MEMBER removeRecoveryKey NOTIFY formChanged)
    Q_PROPERTY(QUrl changeImageURL MEMBER changeImageURL NOTIFY formChanged)
    Q_PROPERTY(bool changeUseRecovery MEMBER changeUseRecovery NOTIFY formChanged)
    Q_PROPERTY(QString changeCurrentPassword MEMBER changeCurrentPassword NOTIFY formChanged)
    Q_PROPERTY(QString changeRecoveryKey MEMBER changeRecoveryKey NOTIFY formChanged)
    Q_PROPERTY(QString changeNewPassword MEMBER changeNewPassword NOTIFY formChanged)
    Q_PROPERTY(QString changeNewConfirm MEMBER changeNewConfirm NOTIFY formChanged)
    Q_PROPERTY(QUrl smartCreateFolderURL MEMBER smartCreateFolderURL NOTIFY formChanged)
    Q_PROPERTY(QString smartCreatePassword MEMBER smartCreatePassword NOTIFY formChanged)
    Q_PROPERTY(QString smartCreateConfirm MEMBER smartCreateConfirm NOTIFY formChanged)
    Q_PROPERTY(QUrl smartActivateURL MEMBER smartActivateURL NOTIFY formChanged)
    Q_PROPERTY(QString smartActivatePassword MEMBER smartActivatePassword NOTIFY formChanged)
    Q_PROPERTY(bool smartActivateUseRecovery MEMBER smartActivateUseRecovery NOTIFY formChanged)
    Q_PROPERTY(QString smartActivateRecoveryKey MEMBER smartActivateRecoveryKey NOTIFY formChanged)
    Q_PROPERTY(QString openedMountPoint MEMBER openedMountPoint NOTIFY stateChanged)
    Q_PROPERTY(bool isBusy MEMBER isBusy NOTIFY stateChanged)
    Q_PROPERTY(bool cancellable READ cancellable NOTIFY stateChanged)
    Q_PROPERTY(double progressFraction READ progressFractionOrNegative NOTIFY stateChanged)
    Q_PROPERTY(QString statusMessage MEMBER statusMessage NOTIFY stateChanged)
    Q_PROPERTY(QString errorMessage MEMBER errorMessage NOTIFY stateChanged)
    Q_PROPERTY(QString successMessage MEMBER successMessage NOTIFY stateChanged)
    Q_PROPERTY(QString recoveryKeyToShow MEMBER recoveryKeyToShow NOTIFY stateChanged)

public:
    enum class Mode { lock, open, remove, change, smart };
    Q_ENUM(Mode)

    /// Both must outlive the object; the tasks' main thread is the object's.
    VaultViewModel(BackgroundTasks& tasks, FilePanels& panels, QObject* parent = nullptr);
    ~VaultViewModel() override;

    Mode mode = Mode::lock;
    QUrl lockFolderURL;
    QString lockPassword;
    QString lockConfirm;
    QUrl openImageURL;
    QString openPassword;
    bool openUseRecovery = false;
    QString openRecoveryKey;
    /// Mount point, while it is open, of the item that this window opened last, or found open when
    /// it was to open it.
    QString openedMountPoint;
    QUrl removeImageURL;
    QString removePassword;
    bool removeUseRecovery = false;
    QString removeRecoveryKey;
    QUrl changeImageURL;
    bool changeUseRecovery = false;
    QString changeCurrentPassword;
    QString changeRecoveryKey;
    QString changeNewPassword;
    QString changeNewConfirm;
    QUrl smartCreateFolderURL;
    QString smartCreatePassword;
    QString smartCreateConfirm;
    QUrl smartActivateURL;
    QString smartActivatePassword;
    bool smartActivateUseRecovery = false;
    QString smartActivateRecoveryKey;

    bool isBusy = false;
    std::optional<double> progressFraction;
    QString statusMessage;
    QString errorMessage;
    /// Whether that is of an operation that the user has cancelled.
    bool wasCancelled = false;
    QString successMessage;
    /// To be presented once; whoever has done so empties it by `dismissRecoveryKey`.
    QString recoveryKeyToShow;
    /// What a later close ejects.
    std::optional<MountInfo> openMountInfo;

    Q_INVOKABLE void chooseFolderToLock();
    Q_INVOKABLE void chooseImageToOpen();
    Q_INVOKABLE void chooseImageToRemove();
    Q_INVOKABLE void chooseImageToChange();
    Q_INVOKABLE void chooseSmartCreateFolder();
    Q_INVOKABLE void chooseSmartActivateImage();

    /// Each does nothing when nothing is chosen.
    Q_INVOKABLE void performLock();
    Q_INVOKABLE void performOpen();
    Q_INVOKABLE void performClose();
    Q_INVOKABLE void performRemove();
    Q_INVOKABLE void performChangePassword();

    /// What runs can be cancelled: it is neither past its point of no return, nor cancelled
    /// already.
    bool cancellable() const { return isBusy && running_.isCancellable(); }
    /// What runs is past its point of no return.
    bool committed() const { return isBusy && running_.isCommitted(); }
    /// Asks what runs to stop and to undo what it has done; without effect when it is too late.
    Q_INVOKABLE void cancel();

    Q_INVOKABLE void clearMessages();
    /// Presents the key that protecting a folder has yielded.
    void presentRecoveryKey(const VaultEngine::LockResult& result);
    /// The user has the key now.
    Q_INVOKABLE void dismissRecoveryKey();
    /// Wipes the secrets of both Smart Folder forms.
    Q_INVOKABLE void wipeSmartForms();
    /// To be told of every volume that is not mounted any more: one of this window's may be ejected
    /// by another program.
    void volumeUnmounted(const std::filesystem::path& mountPoint);
    /// What the user typed to open a Smart Folder.
    Credential smartActivateCredential() const;

signals:
    void formChanged();
    void stateChanged();
    /// An operation on this folder or item has come to its end. In its directory there may be
    /// something that was interrupted, or that it has left itself.
    void performed(const std::filesystem::path& subject);

private:
    enum class Cancellable { yes, no };

    double progressFractionOrNegative() const { return progressFraction.value_or(-1); }
    void choose(void (FilePanels::*panel)(const QString&, FilePanels::Chosen), const QString& title,
                QUrl VaultViewModel::*target);
    void beginBusy(const QString& message, Cancellable cancellable = Cancellable::yes);
    void wipePasswords();
    Credential openCredential() const;
    Credential removeCredential() const;
    Credential changeCredential() const;
    /// Runs `work` in the background, then `finish`, or `finishWithError` with what it threw.
    void perform(BackgroundTasks::Work work, std::function<void()> finish);
    void closeByMountPoint(const QString& path);
    void eject(const MountInfo& mountInfo);
    /// Nobody will wait for the operation that runs: it undoes what it has done, if it still can.
    void undoOperation();
    void endBusy();
    void finishLock(const VaultEngine::LockResult& result);
    void finishOpen(const VaultEngine::OpenResult& result);
    /// The item that was to be opened was mounted already, there.
    void finishOpenElsewhere(const std::filesystem::path& item, const std::string& mountPoint);
    void remember(const MountInfo& mountInfo);
    /// Turns to what was opened before, if it is the one that the window shows.
    void forget(const std::string& mountPoint);
    void finishRemove(const std::filesystem::path& restored);
    void finishChange();
    void finishClose(const std::string& mountPoint);
    void finishWithError(const std::exception_ptr& error);
    ProgressCallback reporter();

    FilePanels& panels_;
    /// What this window opened before `openMountInfo` and has not closed.
    std::vector<MountInfo> openedBefore_;
    RunningOperation running_;
    /// The folder or item of the operation that runs, if it may leave something to be ended.
    std::filesystem::path subject_;
    /// Of the protection whose recovery key is presented.
    std::shared_ptr<OperationNote> keyNote_;
    TaskScope scope_;
};
