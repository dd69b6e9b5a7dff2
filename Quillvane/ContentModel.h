#pragma once

#include "FilePanels.h"
#include "InterruptedFindings.h"
#include "OpenRouter.h"
#include "SmartFolderManager.h"
#include "VaultViewModel.h"

#include <QObject>
#include <QString>
#include <QUrl>

#include <optional>

/// What the main window shows and does beyond its view model and its Smart Folder manager: values
/// derived from both, the sheets for a recovery key and for an item opened from outside, what came
/// of ending what was interrupted, and what leads out of the window. For the main thread.
class ContentModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool busy READ busy NOTIFY changed)
    Q_PROPERTY(bool cancellable READ cancellable NOTIFY changed)
    Q_PROPERTY(bool committed READ committed NOTIFY changed)
    Q_PROPERTY(double progressFraction READ progressFraction NOTIFY changed)
    Q_PROPERTY(QString statusMessage READ statusMessage NOTIFY changed)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY changed)
    Q_PROPERTY(bool wasCancelled READ wasCancelled NOTIFY changed)
    Q_PROPERTY(QString successMessage READ successMessage NOTIFY changed)
    Q_PROPERTY(QUrl currentSelectedURL READ currentSelectedURL NOTIFY changed)
    Q_PROPERTY(QString driveName READ driveName NOTIFY driveNameChanged)
    Q_PROPERTY(QString appVersion READ appVersion CONSTANT)
    Q_PROPERTY(QString pendingName READ pendingName NOTIFY pendingNameChanged)
    Q_PROPERTY(QString doubleClickPassword MEMBER doubleClickPassword NOTIFY sheetChanged)
    Q_PROPERTY(bool doubleClickUseRecovery MEMBER doubleClickUseRecovery NOTIFY sheetChanged)
    Q_PROPERTY(QString doubleClickRecoveryKey MEMBER doubleClickRecoveryKey NOTIFY sheetChanged)
    Q_PROPERTY(bool copied MEMBER copied NOTIFY sheetChanged)
    Q_PROPERTY(bool recoverySaved MEMBER recoverySaved NOTIFY sheetChanged)
    Q_PROPERTY(bool mayClose READ mayClose NOTIFY changed)
    Q_PROPERTY(InterruptedFindings* interrupted READ interrupted CONSTANT)

public:
    /// All must outlive the object.
    ContentModel(VaultViewModel& viewModel, SmartFolderManager& smart,
                 InterruptedFindings& interrupted, OpenRouter& router, FilePanels& panels,
                 BackgroundTasks& tasks, QObject* parent = nullptr);
    ~ContentModel() override;

    /// An operation on an item or on a Smart Folder is running, or one that was interrupted is
    /// being ended.
    bool busy() const;
    /// It can be cancelled, or is past its point of no return; neither when it never can be.
    bool cancellable() const;
    bool committed() const;
    /// From 0 to 1; negative when it is not known.
    double progressFraction() const;
    /// The step of the running operation.
    QString statusMessage() const;
    /// Those of the manager in Smart mode, else of the view model.
    QString errorMessage() const;
    /// The error is that the user has cancelled the operation.
    bool wasCancelled() const;
    QString successMessage() const;
    /// The item of the current mode.
    QUrl currentSelectedURL() const;
    /// Name of the volume that holds it; empty when there is none.
    QString driveName() const { return driveName_; }
    QString appVersion() const;
    /// File name of the item that was opened from outside; empty when there is none.
    QString pendingName() const;
    /// False while closing the window would lose a recovery key or cut an operation short.
    bool mayClose() const;
    InterruptedFindings* interrupted() const { return &interrupted_; }

    QString doubleClickPassword;
    bool doubleClickUseRecovery = false;
    QString doubleClickRecoveryKey;
    bool copied = false;
    bool recoverySaved = false;

    Q_INVOKABLE void selectMode(VaultViewModel::Mode mode);
    /// What runs, if it can be.
    Q_INVOKABLE void cancel();
    Q_INVOKABLE void createSmartFolder();
    Q_INVOKABLE void activateSmartFolder();
    /// Both by the entry's identity; nothing is done for one that is gone.
    Q_INVOKABLE void closeSmartFolder(const QString& id);
    Q_INVOKABLE void showSmartFolder(const QString& id);
    Q_INVOKABLE void showMountPoint();

    Q_INVOKABLE void confirmDoubleClickOpen();
    Q_INVOKABLE void cancelDoubleClickOpen();

    /// Marked as a secret, for programs that keep a history of the clipboard.
    Q_INVOKABLE void copyRecoveryKey();
    Q_INVOKABLE void saveRecoveryKey();
    Q_INVOKABLE void continueAfterRecoveryKey();

signals:
    void changed();
    void driveNameChanged();
    void pendingNameChanged();
    void sheetChanged();

private:
    void wipeSheet();
    void takeRecoveryKey();
    void takePendingFolder();
    void tellEnding(const InterruptedFindings::Ending& ending);
    void tellFailedEnding(const QString& text, bool wasCancelled);
    /// No form asks for what the ending has taken away.
    void forgetIn(QUrl& url, const std::string& name);
    void updateDriveName();
    std::optional<SmartFolderManager::Active> entry(const QString& id) const;

    VaultViewModel& viewModel_;
    SmartFolderManager& smart_;
    InterruptedFindings& interrupted_;
    OpenRouter& router_;
    FilePanels& panels_;
    BackgroundTasks& tasks_;
    QUrl driveOf_;
    QString driveName_;
    QString endings_; ///< what came of those that were ended one after the other
};
