#include "qv/SmartFolder.h"

#include "Quillvane/ErrorText.h"
#include "Quillvane/Preferences.h"
#include "Quillvane/SmartFolderManager.h"
#include "Quillvane/SystemClock.h"
#include "Quillvane/SystemEvents.h"
#include "Quillvane/TerminationSignals.h"
#include "Quillvane/ThreadTasks.h"
#include "qv/Interruption.h"
#include "qv/QuietFailure.h"
#include "qv/ResultOutput.h"

#include <QCoreApplication>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace {

namespace fs = std::filesystem;

/// Follows one folder from its opening to its end.
class Session {
public:
    Session(SmartFolderManager& manager, fs::path item)
        : manager_(manager), item_(std::move(item)) {
        QObject::connect(&manager, &SmartFolderManager::statusMessageChanged,
                         [this] { print(manager_.statusMessage()); });
        QObject::connect(&manager, &SmartFolderManager::successMessageChanged,
                         [this] { print(manager_.successMessage()); });
        QObject::connect(&manager, &SmartFolderManager::errorMessageChanged,
                         [this] { print(manager_.errorMessage()); });
        QObject::connect(&manager, &SmartFolderManager::moved, [this] { goOn(); });
    }

    /// To be called when the manager has been told to open the folder, or has taken it over.
    void begin() { goOn(); }

    /// Closes the folder, at once or as soon as it is open. With `atAnyRate` the program ends
    /// thereafter even if the folder stays open.
    void stop(bool atAnyRate) {
        stopAsked_ = true;
        endAtAnyRate_ = endAtAnyRate_ || atAnyRate;
        if (const auto entry = find()) manager_.attemptClose(*entry);
    }

    bool ended() const { return ended_; }
    bool failed() const { return failed_; }

private:
    static void print(const QString& message) {
        if (!message.isEmpty()) printMessage(message.toStdString());
    }

    std::optional<SmartFolderManager::Active> find() const {
        const auto& entries = manager_.active();
        const auto entry =
            std::ranges::find(entries, item_.native(), &SmartFolderManager::Active::lockedPath);
        if (entry == entries.end()) return std::nullopt;
        return *entry;
    }

    /// After every opening and closing.
    void goOn() {
        if (manager_.isMoving()) return;
        const auto entry = find();
        if (!entry) return end(/*failed=*/!opened_);
        if (!std::exchange(opened_, true)) return greet(*entry);
        if (endAtAnyRate_) return end(/*failed=*/true);
    }

    void greet(const SmartFolderManager::Active& entry) {
        try {
            printResult({entry.mountPath});
        } catch (const std::system_error& error) {
            // The folder is open all the same, and wants to be looked after.
            printMessage(errorText(error));
        }
        if (stopAsked_) manager_.attemptClose(entry);
    }

    /// Folders that an earlier run left open have been taken over; they are closed too.
    void end(bool failed) {
        failed_ = failed_ || failed;
        if (!std::exchange(ending_, true) && !manager_.active().empty() && !endAtAnyRate_) {
            manager_.closeAll(QStringLiteral("end of the program"));
            return;
        }
        ended_ = true;
        QCoreApplication::quit();
    }

    SmartFolderManager& manager_;
    fs::path item_;
    bool opened_ = false;
    bool stopAsked_ = false;
    bool endAtAnyRate_ = false;
    bool ending_ = false;
    bool ended_ = false;
    bool failed_ = false;
};

/// What Qt has to say is for developers.
void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

/// Puts a folder that is open without a manager into the list of those left behind.
void leaveToManager(SmartFolderStore& store, const fs::path& item) {
    const std::string folder = (item.parent_path() / item.stem()).native();
    if (!store.write({{item.stem().native(), item.native(), folder}}, {folder}))
        throw std::runtime_error("The list of open Smart Folders couldn't be saved.");
    printMessage("\"" + item.stem().native() + "\" is open already; it is looked after again.");
}

} // namespace

bool hasManager(const fs::path& item) {
    const auto preferences = Preferences::open();
    const SmartFolderStore store(*preferences, Preferences::lockDirectory());
    return store.claimedElsewhere((item.parent_path() / item.stem()).native());
}

void runSmartFolder(const fs::path& item, std::optional<Credential> credential,
                    std::optional<int> minutes) {
    qInstallMessageHandler(dropMessage);
    char name[] = "qv";
    char* arguments[] = {name, nullptr};
    int count = 1;
    const QCoreApplication application(count, arguments);
    const auto events = SystemEvents::ofThisSystem();
    const auto preferences = Preferences::open();
    SmartFolderStore store(*preferences, Preferences::lockDirectory());
    if (!credential) leaveToManager(store, item);
    SystemClock clock;
    ThreadTasks tasks;
    SmartFolderManager manager(*events, tasks, clock, store);
    if (minutes) manager.setTimeoutMinutes(*minutes);

    Session session(manager, item);
    const TerminationSignals termination;
    QObject::connect(&termination, &TerminationSignals::received,
                     [&](int signal) { session.stop(/*atAnyRate=*/signal == SIGTERM); });
    if (credential) manager.activate(item, std::move(*credential));
    session.begin();
    // One that came before `termination` was there.
    if (Interruption::cancellation().requested()) session.stop(/*atAnyRate=*/false);
    if (!session.ended()) QCoreApplication::exec();
    if (session.failed()) throw QuietFailure();
}
