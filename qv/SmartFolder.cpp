#include "qv/SmartFolder.h"

#include "Quillvane/ErrorText.h"
#include "Quillvane/ItemPath.h"
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
#include <system_error>
#include <unistd.h>
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
        QObject::connect(&manager, &SmartFolderManager::successMessageChanged, [this] {
            greet(); // the folder is in the list by now
            print(manager_.successMessage());
        });
        QObject::connect(&manager, &SmartFolderManager::errorMessageChanged,
                         [this] { print(manager_.errorMessage()); });
        QObject::connect(manager.activeModel(), &QAbstractItemModel::dataChanged,
                         [this] { followItem(); });
        QObject::connect(&manager, &SmartFolderManager::moved, [this] { goOn(); });
    }

    /// To be called when the manager has been told to open the folder, or has taken it over.
    void begin() {
        greet();
        goOn();
    }

    /// Closes the folder, at once or as soon as it is open, if it is not too early to open it at
    /// all. With `atAnyRate` the program ends thereafter even if the folder stays open.
    void stop(bool atAnyRate) {
        stopAsked_ = true;
        endAtAnyRate_ = endAtAnyRate_ || atAnyRate;
        manager_.cancelOpening();
        goOn();
    }

    /// What has become of it: also when the program was ended from outside.
    bool failed() const { return failed_ || !ended_; }
    bool ended() const { return ended_; }

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

    void greet() {
        const auto entry = find();
        if (!entry || std::exchange(opened_, true)) return;
        place_ = entry->mountPath;
        // The folder is looked after whether anybody reads where it is or not.
        if (!canPrint(STDOUT_FILENO)) return;
        try {
            printResult({place_});
        } catch (const std::system_error& error) {
            printMessage(errorText(error));
        }
    }

    /// A directory above the folder was renamed.
    void followItem() {
        if (!opened_ || find()) return;
        for (const auto& entry : manager_.active())
            if (fs::path(entry.lockedPath).filename() == item_.filename()) item_ = entry.lockedPath;
    }

    /// After every opening and closing.
    void goOn() {
        if (ended_ || manager_.isMoving()) return;
        const auto entry = find();
        if (!entry) return end(/*failed=*/!opened_);
        if (std::exchange(stopAsked_, false)) {
            // At the very end a folder in use does not wait to become free: nobody would close it.
            manager_.attemptClose(*entry, /*automatic=*/endAtAnyRate_);
        } else if (endAtAnyRate_) {
            printMessage("\"" + item_.stem().string() +
                         "\" stays open. Close it with: qv smart --close " +
                         shellWord(item_.string()));
            end(/*failed=*/true);
        }
    }

    /// Folders that an earlier run left open have been taken over; they are closed too.
    void end(bool failed) {
        failed_ = failed_ || failed;
        const bool others = std::ranges::any_of(manager_.active(), [this](const auto& entry) {
            return entry.lockedPath != item_.native();
        });
        if (!std::exchange(ending_, true) && others) {
            manager_.closeAll(QStringLiteral("end of the program"));
            return;
        }
        ended_ = true;
        QCoreApplication::quit();
    }

    SmartFolderManager& manager_;
    fs::path item_;
    std::string place_;
    bool opened_ = false;
    bool stopAsked_ = false;
    bool endAtAnyRate_ = false;
    bool ending_ = false;
    bool ended_ = false;
    bool failed_ = false;
};

/// What Qt has to say is for developers.
void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

SmartFolderStore openStore() {
    return {&Preferences::open, Preferences::lockDirectory()};
}

std::string folderOf(const fs::path& item) {
    return (item.parent_path() / item.stem()).native();
}

/// Puts a folder that is open without a manager into the list of those left behind.
void leaveToManager(SmartFolderStore& store, const fs::path& item) {
    const std::string folder = folderOf(item);
    if (!store.write({{item.stem().native(), item.native(), folder}}, {folder}))
        throw std::runtime_error("The list of open Smart Folders couldn't be saved.");
    printMessage("\"" + item.stem().native() + "\" is open already; it is looked after again.");
}

} // namespace

bool hasManager(const fs::path& item) {
    return openStore().claimedElsewhere(folderOf(resolvedItemPath(item)));
}

void runSmartFolder(const fs::path& path, std::optional<Credential> credential,
                    std::optional<int> minutes) {
    qInstallMessageHandler(dropMessage);
    SystemEvents::prepareEventLoop();
    char name[] = "qv";
    char* arguments[] = {name, nullptr};
    int count = 1;
    const QCoreApplication application(count, arguments);
    const fs::path item = resolvedItemPath(path);
    const auto events = SystemEvents::ofThisSystem();
    SmartFolderStore store = openStore();
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
    // What the end of the program has closed without more ado is shown again.
    for (const auto& entry : manager.active())
        VaultEngine::recoverIfOrphaned(entry.lockedPath, entry.mountPath);
    if (session.failed()) throw QuietFailure();
}
