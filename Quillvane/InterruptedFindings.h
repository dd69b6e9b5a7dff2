#pragma once

#include "InterruptedWork.h"
#include "RunningOperation.h"
#include "TaskScope.h"

#include <QObject>
#include <QString>

#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// What was interrupted, told to the user one after the other and ended as they choose: the sheet
/// for it, with the fields and actions of the one that is told now.
///
/// For the main thread; looking and ending happen in the background. Each is told once as long as
/// the program runs, unless it stands in the way of something. A text that is absent is empty.
class InterruptedFindings : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool any READ any NOTIFY changed)
    Q_PROPERTY(bool isProtection READ isProtection NOTIFY changed)
    Q_PROPERTY(bool isChoice READ isChoice NOTIFY changed)
    Q_PROPERTY(QString text READ text NOTIFY changed)
    Q_PROPERTY(QString finishLabel READ finishLabel NOTIFY changed)
    Q_PROPERTY(QString undoLabel READ undoLabel NOTIFY changed)
    Q_PROPERTY(bool needsSecret READ needsSecret NOTIFY changed)
    Q_PROPERTY(QString hint READ hint NOTIFY changed)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY changed)
    Q_PROPERTY(bool cancellable READ cancellable NOTIFY changed)
    Q_PROPERTY(bool committed READ committed NOTIFY changed)
    Q_PROPERTY(double progressFraction READ progressFraction NOTIFY changed)
    Q_PROPERTY(QString statusMessage READ statusMessage NOTIFY changed)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY changed)
    Q_PROPERTY(bool wasCancelled READ wasCancelled NOTIFY changed)
    Q_PROPERTY(QString password MEMBER password NOTIFY fieldsChanged)
    Q_PROPERTY(bool useRecovery MEMBER useRecovery NOTIFY fieldsChanged)
    Q_PROPERTY(QString recoveryKey MEMBER recoveryKey NOTIFY fieldsChanged)

public:
    using Path = std::filesystem::path;

    /// Both must outlive the object. Looking may take as long as a disk that does not answer, so
    /// nobody should wait for it.
    InterruptedFindings(BackgroundTasks& looking, BackgroundTasks& ending,
                        QObject* parent = nullptr);
    ~InterruptedFindings() override;

    /// There is one to be told.
    bool any() const { return !findings_.empty(); }
    /// Of a folder, that is; else it is the removal of a protection.
    bool isProtection() const;
    /// There is something to decide, which can be put off.
    bool isChoice() const;
    QString text() const;
    /// What the two buttons say.
    QString finishLabel() const;
    QString undoLabel() const;
    /// One of the two needs the password or the recovery key.
    bool needsSecret() const;
    /// Which of the two does not, when the other does.
    QString hint() const;

    bool isBusy() const { return running_.isRunning(); }
    bool cancellable() const { return running_.isCancellable(); }
    bool committed() const { return running_.isCommitted(); }
    /// From 0 to 1; negative when it is not known.
    double progressFraction() const { return progressFraction_.value_or(-1); }
    QString statusMessage() const { return statusMessage_; }
    /// Why the last attempt to end it has failed.
    QString errorMessage() const { return errorMessage_; }
    /// Whether that is because the user has cancelled it.
    bool wasCancelled() const { return wasCancelled_; }

    QString password;
    bool useRecovery = false;
    QString recoveryKey;

    /// Looks for everything that was interrupted.
    Q_INVOKABLE void look();
    /// Looks beside a folder or item with which something was done, or has failed, just now.
    void lookBeside(const Path& subject);

    /// These end the one that is told now. What needs no ending is only taken away.
    Q_INVOKABLE void finish();
    Q_INVOKABLE void undo();
    /// What the Return key does in a field: it finishes, if the field is for that.
    Q_INVOKABLE void submit();
    Q_INVOKABLE void later();
    Q_INVOKABLE void cancel();

    /// How one was ended.
    struct Ending {
        InterruptedWork::Found found;
        bool finished; ///< or undone
        InterruptedWork::Outcome outcome;
    };

signals:
    void changed();
    void fieldsChanged();
    void ended(const InterruptedFindings::Ending& ending);
    /// It could not be ended as was asked, and there is nothing any more to be ended.
    void failed(const QString& text, bool wasCancelled);

private:
    /// One, with all that has to be looked up on the disk.
    struct Finding {
        InterruptedWork::Found found;
        bool finishNeedsSecret;
        bool undoNeedsSecret;
    };
    using Find = std::function<std::vector<InterruptedWork::Found>()>;

    static Finding lookAt(const InterruptedWork::Found& found);
    /// The same operation as it stands now; nothing when it has come to its end.
    static std::optional<Finding> lookAgain(const Finding& finding);
    void start(Find find, const std::string& subject);
    void tell(const Finding& finding, const std::string& subject);
    void end(bool finishing);
    bool requireSecret();
    void endFailed(const std::exception_ptr& error, const std::optional<Finding>& now);
    void takeAway();
    void wipe();

    TaskScope looking_;
    TaskScope ending_;
    std::deque<Finding> findings_; ///< the first is the one that is told now
    std::set<std::string> told_;   ///< notes and images
    RunningOperation running_;
    std::optional<double> progressFraction_;
    QString statusMessage_;
    QString errorMessage_;
    bool wasCancelled_ = false;
};
