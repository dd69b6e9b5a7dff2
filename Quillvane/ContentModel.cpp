#include "ContentModel.h"

#include "DropRules.h"
#include "DurableFile.h"
#include "FileManager.h"
#include "FileUrl.h"
#include "ItemPath.h"
#include "Platform.h"
#include "SecretClipboard.h"
#include "SecretText.h"

#include <algorithm>
#include <system_error>
#include <utility>

using Mode = VaultViewModel::Mode;

ContentModel::ContentModel(VaultViewModel& viewModel, SmartFolderManager& smart,
                           InterruptedFindings& interrupted, OpenRouter& router, FilePanels& panels,
                           BackgroundTasks& tasks, QObject* parent)
    : QObject(parent), viewModel_(viewModel), smart_(smart), interrupted_(interrupted),
      router_(router), panels_(panels), tasks_(tasks) {
    connect(&viewModel, &VaultViewModel::stateChanged, this, &ContentModel::changed);
    connect(&viewModel, &VaultViewModel::formChanged, this, &ContentModel::changed);
    connect(&viewModel, &VaultViewModel::formChanged, this, &ContentModel::updateDriveName);
    for (const auto signal :
         {&SmartFolderManager::isBusyChanged, &SmartFolderManager::cancellableChanged,
          &SmartFolderManager::statusMessageChanged, &SmartFolderManager::errorMessageChanged,
          &SmartFolderManager::successMessageChanged})
        connect(&smart, signal, this, &ContentModel::changed);
    connect(&interrupted, &InterruptedFindings::changed, this, &ContentModel::changed);
    connect(&interrupted, &InterruptedFindings::ended, this, &ContentModel::tellEnding);
    connect(&interrupted, &InterruptedFindings::failed, this, &ContentModel::tellFailedEnding);
    // It is told at the next operation in its directory, too; and what has failed just now may have
    // left something that is better ended at once.
    connect(&viewModel, &VaultViewModel::performed, &interrupted, &InterruptedFindings::lookBeside);
    connect(&smart, &SmartFolderManager::creationFailed, &interrupted,
            &InterruptedFindings::lookBeside);
    // A finished operation leaves no secret in the forms.
    connect(&smart, &SmartFolderManager::isBusyChanged, this, [this] {
        if (!smart_.isBusy()) viewModel_.wipeSmartForms();
    });
    connect(&viewModel, &VaultViewModel::stateChanged, this, &ContentModel::takeRecoveryKey);
    connect(&smart, &SmartFolderManager::recoveryKeyToShowChanged, this,
            &ContentModel::takeRecoveryKey);
    connect(&router, &OpenRouter::pendingContainerChanged, this, [this] {
        wipeSheet(); // it was typed for another item
        emit pendingNameChanged();
    });
    connect(&router, &OpenRouter::pendingFolderChanged, this, &ContentModel::takePendingFolder);
    connect(this, &ContentModel::changed, this, &ContentModel::takePendingFolder);
    takePendingFolder(); // the program was started with it
}

ContentModel::~ContentModel() {
    blockSignals(true); // no binding is to look at an object that is going
    wipeSheet();
}

bool ContentModel::busy() const {
    return viewModel_.isBusy || smart_.isBusy() || interrupted_.isBusy();
}

bool ContentModel::cancellable() const {
    return viewModel_.cancellable() || smart_.cancellable() || interrupted_.cancellable();
}

bool ContentModel::committed() const {
    return viewModel_.committed() || smart_.committed() || interrupted_.committed();
}

void ContentModel::cancel() {
    viewModel_.cancel();
    smart_.cancelCreation();
    smart_.cancelOpening();
    interrupted_.cancel();
}

double ContentModel::progressFraction() const {
    if (interrupted_.isBusy()) return interrupted_.progressFraction();
    return viewModel_.isBusy ? viewModel_.progressFraction.value_or(-1) : -1;
}

QString ContentModel::statusMessage() const {
    if (interrupted_.isBusy()) return interrupted_.statusMessage();
    return viewModel_.isBusy ? viewModel_.statusMessage : smart_.statusMessage();
}

QString ContentModel::errorMessage() const {
    return viewModel_.mode == Mode::smart ? smart_.errorMessage() : viewModel_.errorMessage;
}

bool ContentModel::wasCancelled() const {
    return viewModel_.mode == Mode::smart ? smart_.wasCancelled() : viewModel_.wasCancelled;
}

QString ContentModel::successMessage() const {
    return viewModel_.mode == Mode::smart ? smart_.successMessage() : viewModel_.successMessage;
}

QUrl ContentModel::currentSelectedURL() const {
    switch (viewModel_.mode) {
    case Mode::lock:
        return viewModel_.lockFolderURL;
    case Mode::open:
        return viewModel_.openImageURL;
    case Mode::remove:
        return viewModel_.removeImageURL;
    case Mode::change:
        return viewModel_.changeImageURL;
    case Mode::smart:
        break;
    }
    return viewModel_.smartActivateURL.isEmpty() ? viewModel_.smartCreateFolderURL
                                                 : viewModel_.smartActivateURL;
}

void ContentModel::updateDriveName() {
    const QUrl item = currentSelectedURL();
    if (std::exchange(driveOf_, item) == item) return;
    const std::optional<std::string> name =
        item.isEmpty() ? std::nullopt : Platform::volumeName(filePath(item));
    driveName_ = QString::fromStdString(name.value_or(""));
    emit driveNameChanged();
}

QString ContentModel::appVersion() const {
    return QStringLiteral(QUILLVANE_VERSION " (" QUILLVANE_BUILD ")");
}

QString ContentModel::pendingName() const {
    const QUrl item = router_.pendingContainer();
    if (item.isEmpty()) return {};
    // Not the URL's last part, which is empty when a slash ends it.
    return QString::fromStdString(itemPath(filePath(item)).filename().string());
}

bool ContentModel::mayClose() const {
    return !busy() && !smart_.isCreating() && viewModel_.recoveryKeyToShow.isEmpty();
}

void ContentModel::selectMode(Mode mode) {
    viewModel_.mode = mode;
    emit viewModel_.formChanged();
    const QString step = viewModel_.isBusy ? viewModel_.statusMessage : QString();
    viewModel_.clearMessages();
    viewModel_.statusMessage = step; // it still runs
    emit viewModel_.stateChanged();
}

void ContentModel::createSmartFolder() {
    const std::filesystem::path folder = filePath(viewModel_.smartCreateFolderURL);
    if (folder.empty()) return;
    smart_.createSmartFolder(folder, secretOf(viewModel_.smartCreatePassword),
                             secretOf(viewModel_.smartCreateConfirm));
}

void ContentModel::activateSmartFolder() {
    const std::filesystem::path item = filePath(viewModel_.smartActivateURL);
    if (item.empty()) return;
    smart_.activate(item, viewModel_.smartActivateCredential());
    if (!smart_.isBusy()) viewModel_.wipeSmartForms(); // it was refused at once
}

std::optional<SmartFolderManager::Active> ContentModel::entry(const QString& id) const {
    const auto& entries = smart_.active();
    const auto found = std::ranges::find_if(
        entries, [&](const auto& entry) { return QString::fromStdString(entry.id) == id; });
    if (found == entries.end()) return std::nullopt;
    return *found;
}

void ContentModel::closeSmartFolder(const QString& id) {
    if (const auto folder = entry(id)) smart_.attemptClose(*folder);
}

void ContentModel::showSmartFolder(const QString& id) {
    if (const auto folder = entry(id)) FileManager::reveal(folder->mountPath, tasks_);
}

void ContentModel::showMountPoint() {
    if (viewModel_.openMountInfo) FileManager::show(viewModel_.openMountInfo->mountPoint, tasks_);
}

void ContentModel::confirmDoubleClickOpen() {
    const QUrl item = router_.pendingContainer();
    if (item.isEmpty()) return;
    Credential credential = doubleClickUseRecovery
                                ? Credential::recoveryKey(secretOf(doubleClickRecoveryKey))
                                : Credential::password(secretOf(doubleClickPassword));
    selectMode(Mode::smart);
    smart_.activate(filePath(item), std::move(credential));
    cancelDoubleClickOpen();
}

void ContentModel::cancelDoubleClickOpen() {
    wipeSheet();
    router_.setPendingContainer({});
}

void ContentModel::wipeSheet() {
    if (doubleClickPassword.isEmpty() && doubleClickRecoveryKey.isEmpty()) return;
    wipeText(doubleClickPassword);
    wipeText(doubleClickRecoveryKey);
    emit sheetChanged();
}

void ContentModel::takeRecoveryKey() {
    // One after the other: a key that is shown must not turn into another.
    if (!smart_.recoveryKeyToShow() || !viewModel_.recoveryKeyToShow.isEmpty()) return;
    VaultEngine::LockResult created = smart_.takeCreated();
    created.recoveryKey = *smart_.recoveryKeyToShow();
    smart_.clearRecoveryKeyToShow();
    viewModel_.smartCreateFolderURL.clear(); // it is an item now
    emit viewModel_.formChanged();
    viewModel_.presentRecoveryKey(created);
}

void ContentModel::takePendingFolder() {
    const QUrl folder = router_.pendingFolder();
    if (folder.isEmpty() || busy()) return; // a form is not changed while it is used
    router_.setPendingFolder({});
    const QUrl accepted = DropRules::accepted({folder}, true);
    if (accepted.isEmpty()) return;
    // As if it were dropped: the last operation's result stays, it may have come just now.
    viewModel_.mode = Mode::lock;
    viewModel_.lockFolderURL = accepted;
    emit viewModel_.formChanged();
}

void ContentModel::tellEnding(const InterruptedFindings::Ending& ending) {
    const auto& contents = ending.found.contents;
    const auto& result = ending.outcome.result;
    const bool isItem = result && result->filename() == contents.item;
    QString text = QString::fromStdString(ending.outcome.message);
    if (text.isEmpty() && result)
        text = (isItem ? QStringLiteral("Locked. Your folder is protected:\n")
                       : QStringLiteral("Password removed. It's a normal folder again:\n")) +
               QString::fromStdString(result->string());
    if (result && isItem) {
        forgetIn(viewModel_.lockFolderURL, contents.folder);
        forgetIn(viewModel_.smartCreateFolderURL, contents.folder);
    } else if (result) {
        forgetIn(viewModel_.removeImageURL, contents.item);
    }
    const bool isProtection = contents.operation == OperationNote::Operation::protect;
    selectMode(isProtection ? Mode::lock : Mode::remove);
    if (ending.finished && ending.found.state == InterruptedWork::State::unfinished) {
        viewModel_.lockFolderURL = fileUrl(InterruptedWork::place(ending.found));
        emit viewModel_.formChanged();
    }
    if (!text.isEmpty()) endings_ += (endings_.isEmpty() ? "" : "\n\n") + text;
    viewModel_.successMessage = endings_;
    if (!interrupted_.any()) endings_.clear();
    emit viewModel_.stateChanged();
}

void ContentModel::tellFailedEnding(const QString& text, bool wasCancelled) {
    if (viewModel_.mode == Mode::smart) selectMode(Mode::lock);
    viewModel_.errorMessage = text;
    viewModel_.wasCancelled = wasCancelled;
    emit viewModel_.stateChanged();
}

void ContentModel::forgetIn(QUrl& url, const std::string& name) {
    const std::filesystem::path chosen = filePath(url);
    if (chosen.empty() || itemPath(chosen).filename() != name) return;
    url.clear();
    emit viewModel_.formChanged();
}

void ContentModel::copyRecoveryKey() {
    SecretClipboard::copy(viewModel_.recoveryKeyToShow);
    copied = true;
    emit sheetChanged();
}

void ContentModel::saveRecoveryKey() {
    panels_.chooseTextFileToSave(
        QStringLiteral("Save recovery key"), QStringLiteral("Quillvane-recovery-key.txt"),
        [key = secretOf(viewModel_.recoveryKeyToShow)](const QUrl& url) {
            constexpr mode_t ownerOnly = 0600;
            Secret text("Quillvane — recovery key\n\n");
            text.append(key.text());
            text.append(
                "\n\nKeep this safe. It's the only way back in if you forget your password.\n");
            try {
                DurableFile::replace(filePath(url), text.text(), ownerOnly);
            } catch (const std::system_error&) {
                return; // the key stays on the screen
            }
        });
}

void ContentModel::continueAfterRecoveryKey() {
    if (!recoverySaved) return;
    copied = false;
    recoverySaved = false;
    viewModel_.dismissRecoveryKey();
    emit sheetChanged();
}
