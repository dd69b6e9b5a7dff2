#pragma once

#include "BackgroundTasks.h"
#include "Cancellation.h"
#include "Clock.h"
#include "Credential.h"
#include "RunningOperation.h"
#include "Secret.h"
#include "SmartFolderList.h"
#include "SmartFolderStore.h"
#include "TaskScope.h"
#include "VaultEngine.h"

#include <QObject>
#include <QString>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class SystemEvents;

/// Knows which Smart Folders are open, opens them in place and closes them again: after a time of
/// inactivity, when the screen locks, when the user logs out or the computer is switched off, and
/// when the program ends. It keeps its list in the user's preferences, so that the next start can
/// repair what a killed program left behind.
///
/// For the main thread alone; tools run in the background. A text that is "none" is empty.
class SmartFolderManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(QAbstractItemModel* active READ activeModel CONSTANT)
    Q_PROPERTY(
        int timeoutMinutes READ timeoutMinutes WRITE setTimeoutMinutes NOTIFY timeoutMinutesChanged)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY isBusyChanged)
    Q_PROPERTY(bool cancellable READ cancellable NOTIFY cancellableChanged)
    Q_PROPERTY(QString statusMessage READ statusMessage NOTIFY statusMessageChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorMessageChanged)
    Q_PROPERTY(QString successMessage READ successMessage NOTIFY successMessageChanged)

public:
    using Active = ActiveSmartFolder;
    using Path = std::filesystem::path;

    /// Repairs what an earlier run left open, then starts the idle timer and listens to the system
    /// and to the application object's end. Everything given must outlive the manager.
    SmartFolderManager(SystemEvents& events, BackgroundTasks& tasks, Clock& clock,
                       SmartFolderStore& store, QObject* parent = nullptr);

    /// The open Smart Folders in the order in which they were opened.
    const std::vector<Active>& active() const { return active_.entries(); }
    QAbstractItemModel* activeModel() { return &active_; }
    /// Minutes of inactivity after which a folder is closed; less than one counts as one.
    int timeoutMinutes() const { return timeoutMinutes_; }
    void setTimeoutMinutes(int minutes);
    /// A create, open or user-requested close is running.
    bool isBusy() const { return isBusy_; }
    QString statusMessage() const { return statusMessage_; }
    QString errorMessage() const { return errorMessage_; }
    /// Whether that is of an operation that the user has cancelled.
    bool wasCancelled() const { return wasCancelled_; }
    QString successMessage() const { return successMessage_; }
    /// The recovery key of a Smart Folder just created, to be shown to the user once.
    const std::optional<Secret>& recoveryKeyToShow() const { return recoveryKeyToShow_; }
    void clearRecoveryKeyToShow();
    /// What creating that Smart Folder has yielded, but for the key, for whoever shows it.
    VaultEngine::LockResult takeCreated();
    /// True while a folder is being turned into a Smart Folder.
    bool isCreating() const { return creation_.isRunning(); }
    /// A creation, or an opening, can be cancelled.
    bool cancellable() const;
    /// A creation is past its point of no return.
    bool committed() const { return creation_.isCommitted(); }
    /// True while a folder is being opened or closed.
    bool isMoving() const { return !opening_.empty() || !closing_.empty(); }

    /// Turns a folder into a protected item.
    void createSmartFolder(const Path& folder, Secret password, Secret confirm);
    /// Asks the creation that runs to stop and to undo what it has done; without effect when it is
    /// too late.
    void cancelCreation();
    /// Opens the item in place.
    void activate(const Path& locked, Credential credential);
    /// Gives up what is being opened as long as its key is derived, for which a hostile key file
    /// may ask for an hour; what has come further is opened.
    void cancelOpening();
    /// Closes one folder; silently when `automatic`. A folder in use stays open and is tried again
    /// after a full time-out. `reason` changes nothing here.
    void attemptClose(const Active& asked, bool automatic = false,
                      const std::optional<QString>& reason = std::nullopt);
    /// Closes every open folder in the background, and those that are being opened as soon as they
    /// are open.
    void closeAll(const QString& reason);
    /// Waits for what is under way and closes every folder before the process ends, as far as that
    /// works. The list and the hidden flags stay: the next start repairs them.
    void closeAllSynchronouslyBestEffort();

signals:
    void timeoutMinutesChanged();
    void isBusyChanged();
    /// The same goes for `committed`.
    void cancellableChanged();
    void statusMessageChanged();
    void errorMessageChanged();
    void successMessageChanged();
    void recoveryKeyToShowChanged();
    /// Making a Smart Folder of this folder has failed, and may have left something to be ended.
    void creationFailed(const std::filesystem::path& folder);
    /// An opening or closing has come to its end.
    void moved();

private:
    void recoverPersisted();
    void startTimer();
    void observeSystemEvents();
    void tick();
    void resetIdle(const std::string& id);
    void handleExternalUnmount(const Path& mountPath);
    /// Follows a folder whose directory was renamed; false when its volume is gone.
    bool follow(const std::string& id);
    /// The entry as it is now, should a directory above it have been renamed.
    Active whereItIs(const Active& entry);
    /// Asks in the background whether the volume's server is alive.
    void lookAfter(const Active& entry);
    /// False when the list could not be saved.
    bool persist();
    void persistAndTell();
    void remove(const std::string& id);

    void beginBusy(const QString& message);
    /// Ends what `beginBusy` began, or what ran silently when `automatic`: others that the user
    /// asked for may still be under way.
    void endBusy(bool automatic = false);
    void fail(const std::exception_ptr& error, bool automatic = false);
    /// Runs `work` in the background and then, unless the manager is gone, `ending` with what it
    /// threw, or null.
    void offMain(BackgroundTasks::Work work, BackgroundTasks::Ending ending);

    void append(Active entry);
    void created(VaultEngine::LockResult result);
    void opened(const VaultEngine::SmartMount& mount);
    void closed(const Active& entry, bool automatic, bool filesLeft);
    void closeFailed(const Active& entry, bool automatic, const std::exception_ptr& error);
    /// Tells that an opening or closing has ended, and the system when there is none left that it
    /// should wait for.
    void endMove();

    void setBusy(bool busy);
    void setStatusMessage(const QString& text);
    void setErrorMessage(const QString& text, bool wasCancelled = false);
    void setSuccessMessage(const QString& text);

    SystemEvents& events_;
    BackgroundTasks& tasks_;
    Clock& clock_;
    SmartFolderStore& store_;
    TaskScope scope_;

    SmartFolderList active_;
    int timeoutMinutes_ = 5;
    bool isBusy_ = false;
    int requested_ = 0; ///< operations under way that the user asked for
    QString statusMessage_;
    QString errorMessage_;
    bool wasCancelled_ = false;
    QString successMessage_;
    std::optional<Secret> recoveryKeyToShow_;
    VaultEngine::LockResult created_;

    /// Items that are being opened. They are in the preferences too, so that a killed program
    /// leaves none hidden that nobody knows of.
    std::vector<SmartFolderStore::Record> opening_;
    /// Closed folders whose items could not be shown again; the next start tries once more.
    std::vector<SmartFolderStore::Record> leftHidden_;
    /// What the item was called when its volume was mounted, for folders that were followed since.
    std::map<std::string, std::string> imageAtMount_;
    std::set<std::string> lookedAfter_; ///< entries whose server is being asked
    std::set<std::string> closing_;     ///< mount paths of folders that are being closed
    std::set<std::string> managed_;     ///< every mount path that was in `active_` once
    std::optional<QString> closeWhenOpened_;
    RunningOperation creation_;
    std::shared_ptr<Cancellation> openings_; ///< of all that is being opened; null if nothing is
    bool powerOffWaits_ = false;
};
