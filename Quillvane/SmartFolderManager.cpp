#include "SmartFolderManager.h"

#include "ErrorText.h"
#include "ItemPath.h"
#include "OperationCancelled.h"
#include "SystemEvents.h"
#include "VaultEngine.h"

#include <QCoreApplication>

#include <algorithm>
#include <system_error>
#include <utility>

namespace {

constexpr std::chrono::seconds tickInterval{20};

QString textOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& known) {
        return QString::fromStdString(errorText(known));
    }
}

bool isCancellation(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const OperationCancelled&) {
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// An open folder that the system does not tell of is better kept than forgotten.
bool isOpen(const std::string& mountPath) {
    try {
        return VaultEngine::isMounted(mountPath);
    } catch (const std::system_error&) {
        return true;
    }
}

} // namespace

SmartFolderManager::SmartFolderManager(SystemEvents& events, BackgroundTasks& tasks, Clock& clock,
                                       SmartFolderStore& store, QObject* parent)
    : QObject(parent), events_(events), tasks_(tasks), clock_(clock), store_(store), scope_(tasks) {
    recoverPersisted();
    startTimer();
    observeSystemEvents();
}

void SmartFolderManager::createSmartFolder(const Path& folder, Secret password, Secret confirm) {
    beginBusy(QStringLiteral("Preparing…"));
    struct Creation {
        Secret password;
        Secret confirm;
        VaultEngine::LockResult result;
    };
    const auto creation = std::make_shared<Creation>();
    creation->password = std::move(password);
    creation->confirm = std::move(confirm);
    creation_.begin();
    emit cancellableChanged();
    const ProgressCallback report = scope_.reporter([this](const Progress& progress) {
        if (!creation_.hears(progress)) return;
        setStatusMessage(QString::fromStdString(progress.message));
        emit cancellableChanged();
    });
    offMain(
        [creation, folder, report, cancellation = creation_.cancellation()] {
            creation->result = VaultEngine::lock(folder, creation->password, creation->confirm,
                                                 Filesystem::apfs, report, cancellation.get());
        },
        [this, creation, folder](const std::exception_ptr& error) {
            creation_.end();
            emit cancellableChanged();
            if (!error) return created(std::move(creation->result));
            fail(error);
            emit creationFailed(folder);
        });
}

void SmartFolderManager::created(VaultEngine::LockResult result) {
    endBusy();
    QString message = "Smart folder created:\n" +
                      QString::fromStdString(result.container.filename().string()) + "\n\n";
    if (result.leftBehind.empty())
        message += "It now looks like a folder: double-click, enter your password, and it opens in "
                   "place — then closes itself.";
    else
        message += QString::fromStdString(result.leftBehind) +
                   "\nMove it elsewhere, then the smart folder can be opened in place.";
    setSuccessMessage(message);
    recoveryKeyToShow_ = std::exchange(result.recoveryKey, Secret());
    created_ = std::move(result);
    emit recoveryKeyToShowChanged();
}

VaultEngine::LockResult SmartFolderManager::takeCreated() {
    return std::exchange(created_, {});
}

bool SmartFolderManager::cancellable() const {
    return creation_.isCancellable() || (openings_ && !openings_->requested());
}

void SmartFolderManager::cancelCreation() {
    if (!creation_.isCancellable()) return;
    if (creation_.cancel()) setStatusMessage(QStringLiteral("Cancelling…"));
    emit cancellableChanged();
}

void SmartFolderManager::activate(const Path& locked, Credential credential) {
    const Path item = resolvedItemPath(locked);
    const SmartFolderStore::Record record{item.stem(), item, item.parent_path() / item.stem()};
    const auto hasName = [&](const auto& other) { return other.name == record.name; };
    if (std::ranges::any_of(opening_, hasName) || std::ranges::any_of(active(), hasName) ||
        !store_.claim(record.mountPath)) {
        setErrorMessage("\"" + QString::fromStdString(record.name) + "\" is already open.");
        return;
    }
    beginBusy("Opening " + QString::fromStdString(record.name) + " in place…");
    managed_.insert(record.mountPath);
    opening_.push_back(record);
    if (!openings_) openings_ = std::make_shared<Cancellation>();
    emit cancellableChanged();
    persistAndTell();
    struct Opening {
        Credential credential;
        VaultEngine::SmartMount mount;
    };
    const auto opening = std::make_shared<Opening>(Opening{std::move(credential), {}});
    offMain(
        [opening, item, cancellation = openings_] {
            opening->mount =
                VaultEngine::openAsFolder(item, opening->credential, cancellation.get());
        },
        [this, opening, record](const std::exception_ptr& error) {
            std::erase(opening_, record);
            if (error) {
                fail(error);
                persist(); // its own failure is not the one to be told
                store_.release(record.mountPath);
            } else {
                opened(opening->mount);
            }
            if (opening_.empty()) {
                closeWhenOpened_.reset();
                openings_.reset();
                emit cancellableChanged();
            }
            endMove();
        });
}

void SmartFolderManager::cancelOpening() {
    if (!openings_) return;
    openings_->request();
    emit cancellableChanged();
}

void SmartFolderManager::opened(const VaultEngine::SmartMount& mount) {
    const Clock::Time now = clock_.now();
    const Active entry{mount.mountPath, mount.name, mount.lockedPath, mount.mountPath, now, now};
    append(entry);
    persistAndTell();
    endBusy();
    setSuccessMessage("\"" + QString::fromStdString(mount.name) +
                      "\" opened in place. It closes by itself after " +
                      QString::number(timeoutMinutes_) +
                      " min of inactivity, or on screen lock / logout.");
    if (closeWhenOpened_) attemptClose(entry, /*automatic=*/true, closeWhenOpened_);
}

void SmartFolderManager::recoverPersisted() {
    const auto records = store_.read();
    if (!records) return;
    const Clock::Time now = clock_.now();
    for (const SmartFolderStore::Record& record : *records) {
        if (store_.claimedElsewhere(record.mountPath)) continue;
        if (isOpen(record.mountPath)) {
            append({record.mountPath, record.name, record.container, record.mountPath, now, now});
        } else {
            VaultEngine::recoverIfOrphaned(record.container, record.mountPath);
            managed_.insert(record.mountPath);
        }
    }
    persist(); // errors of the repair are not shown
}

void SmartFolderManager::startTimer() {
    clock_.repeat(tickInterval, scope_.guarded([this] { tick(); }));
}

void SmartFolderManager::observeSystemEvents() {
    connect(&events_, &SystemEvents::screenLocked, this,
            [this] { closeAll(QStringLiteral("screen lock")); });
    connect(&events_, &SystemEvents::poweringOff, this, [this] {
        powerOffWaits_ = true;
        closeAll(QStringLiteral("logout / shutdown"));
        endMove(); // when there is nothing to close
    });
    connect(&events_, &SystemEvents::volumeUnmounted, this,
            [this](const Path& mountPath) { handleExternalUnmount(mountPath); });
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this,
            &SmartFolderManager::closeAllSynchronouslyBestEffort);
}

bool SmartFolderManager::persist() {
    std::vector<SmartFolderStore::Record> records;
    for (const Active& entry : active())
        records.push_back({entry.name, entry.lockedPath, entry.mountPath});
    records.insert(records.end(), opening_.begin(), opening_.end());
    records.insert(records.end(), leftHidden_.begin(), leftHidden_.end());
    return store_.write(records, managed_);
}

void SmartFolderManager::persistAndTell() {
    if (!persist())
        setErrorMessage(QStringLiteral("The list of open Smart Folders couldn't be saved."));
}

void SmartFolderManager::append(Active entry) {
    managed_.insert(entry.mountPath);
    store_.claim(entry.mountPath);
    active_.append(std::move(entry));
}

void SmartFolderManager::remove(const std::string& id) {
    active_.remove(id);
    persist();          // at worst the next start finds a record of a folder that is closed
    store_.release(id); // not before: nobody else may take the record for one left behind
}

void SmartFolderManager::beginBusy(const QString& message) {
    setErrorMessage({});
    setSuccessMessage({});
    ++requested_;
    setBusy(true);
    setStatusMessage(message);
}

void SmartFolderManager::endBusy(bool automatic) {
    if (!automatic) --requested_;
    if (requested_ > 0) return;
    setBusy(false);
    setStatusMessage({});
}

void SmartFolderManager::fail(const std::exception_ptr& error, bool automatic) {
    endBusy(automatic);
    setErrorMessage(textOf(error), isCancellation(error));
}

void SmartFolderManager::offMain(BackgroundTasks::Work work, BackgroundTasks::Ending ending) {
    scope_.start(std::move(work), std::move(ending));
}

void SmartFolderManager::setTimeoutMinutes(int minutes) {
    if (std::exchange(timeoutMinutes_, minutes) != minutes) emit timeoutMinutesChanged();
}

void SmartFolderManager::clearRecoveryKeyToShow() {
    if (std::exchange(recoveryKeyToShow_, std::nullopt)) emit recoveryKeyToShowChanged();
}

void SmartFolderManager::setBusy(bool busy) {
    if (std::exchange(isBusy_, busy) != busy) emit isBusyChanged();
}

void SmartFolderManager::setStatusMessage(const QString& text) {
    if (std::exchange(statusMessage_, text) != text) emit statusMessageChanged();
}

void SmartFolderManager::setErrorMessage(const QString& text, bool wasCancelled) {
    wasCancelled_ = wasCancelled;
    if (std::exchange(errorMessage_, text) != text) emit errorMessageChanged();
}

void SmartFolderManager::setSuccessMessage(const QString& text) {
    if (std::exchange(successMessage_, text) != text) emit successMessageChanged();
}
