#include "InterruptedFindings.h"

#include "ErrorText.h"
#include "InterruptedLabels.h"
#include "ItemPath.h"
#include "OperationCancelled.h"
#include "RecoveryError.h"
#include "SecretText.h"
#include "VaultError.h"

#include <QCoreApplication>

#include <algorithm>
#include <memory>
#include <utility>

using InterruptedWork::Found;

namespace {

/// What tells it from others.
std::string identity(const Found& found) {
    return found.note.empty() ? InterruptedWork::place(found).native() : found.note;
}

bool concerns(const Found& found, const std::string& name) {
    return !name.empty() && (name == found.contents.folder || name == found.contents.item);
}

} // namespace

InterruptedFindings::InterruptedFindings(BackgroundTasks& looking, BackgroundTasks& ending,
                                         QObject* parent)
    : QObject(parent), looking_(looking), ending_(ending) {
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this,
            [this] { running_.cancel(); });
}

InterruptedFindings::~InterruptedFindings() {
    running_.cancel(); // nobody will wait for it: it stands where it can be ended again
    blockSignals(true);
    wipe();
}

bool InterruptedFindings::isProtection() const {
    return any() && findings_.front().found.contents.operation == OperationNote::Operation::protect;
}

bool InterruptedFindings::isChoice() const {
    return any() && InterruptedWork::isChoice(findings_.front().found);
}

QString InterruptedFindings::text() const {
    return any() ? QString::fromStdString(InterruptedWork::text(findings_.front().found))
                 : QString();
}

QString InterruptedFindings::finishLabel() const {
    return any() ? QString::fromStdString(InterruptedWork::finishLabel(findings_.front().found))
                 : QString();
}

QString InterruptedFindings::undoLabel() const {
    return any() ? QString::fromStdString(InterruptedWork::undoLabel(findings_.front().found))
                 : QString();
}

bool InterruptedFindings::needsSecret() const {
    if (!isChoice()) return false;
    return findings_.front().finishNeedsSecret || findings_.front().undoNeedsSecret;
}

QString InterruptedFindings::hint() const {
    if (!needsSecret() || findings_.front().finishNeedsSecret == findings_.front().undoNeedsSecret)
        return {};
    const QString label = findings_.front().finishNeedsSecret ? undoLabel() : finishLabel();
    return "“" + label + "” needs no password.";
}

// Looking

InterruptedFindings::Finding InterruptedFindings::lookAt(const Found& found) {
    return {found, InterruptedWork::finishNeedsSecret(found),
            InterruptedWork::undoNeedsSecret(found)};
}

std::optional<InterruptedFindings::Finding> InterruptedFindings::lookAgain(const Finding& finding) {
    try {
        for (const Found& now : InterruptedWork::findIn(finding.found.contents.directory))
            if (now.note == finding.found.note) return lookAt(now);
        return std::nullopt;
    } catch (const std::exception&) {
        return finding; // the error that brought us here is the one to tell
    }
}

void InterruptedFindings::look() {
    start([] { return InterruptedWork::find(); }, {});
}

void InterruptedFindings::lookBeside(const Path& subject) {
    const Path path = itemPath(subject);
    start([directory = path.parent_path()] { return InterruptedWork::findIn(directory); },
          path.filename());
}

void InterruptedFindings::start(Find find, const std::string& subject) {
    const auto all = std::make_shared<std::vector<Finding>>();
    looking_.start(
        [find = std::move(find), all] {
            for (const Found& found : find()) all->push_back(lookAt(found));
        },
        [this, all, subject](const std::exception_ptr&) {
            // What could not be looked at is looked at again the next time.
            for (const Finding& finding : *all) tell(finding, subject);
        });
}

void InterruptedFindings::tell(const Finding& finding, const std::string& subject) {
    const std::string id = identity(finding.found);
    const auto isSame = [&](const Finding& other) { return identity(other.found) == id; };
    if (std::ranges::any_of(findings_, isSame)) return;
    if (!told_.insert(id).second && !concerns(finding.found, subject)) return;
    findings_.push_back(finding);
    emit changed();
}

// Ending

void InterruptedFindings::finish() {
    end(true);
}

void InterruptedFindings::undo() {
    end(false);
}

void InterruptedFindings::submit() {
    if (any() && findings_.front().finishNeedsSecret) finish();
}

void InterruptedFindings::later() {
    if (any() && !isBusy()) takeAway();
}

void InterruptedFindings::cancel() {
    if (!cancellable()) return;
    if (running_.cancel()) statusMessage_ = QStringLiteral("Cancelling…");
    emit changed();
}

bool InterruptedFindings::requireSecret() {
    if (!(useRecovery ? recoveryKey : password).isEmpty()) return true;
    errorMessage_ = QString::fromUtf8(
        useRecovery ? RecoveryError(RecoveryError::Case::invalidRecoveryKey).what()
                    : VaultError::emptyPassword().what());
    emit changed();
    return false;
}

void InterruptedFindings::end(bool finishing) {
    if (!any() || isBusy()) return;
    const Finding finding = findings_.front();
    if (!InterruptedWork::canBeEnded(finding.found)) return takeAway();
    const bool needsSecret = finishing ? finding.finishNeedsSecret : finding.undoNeedsSecret;
    errorMessage_.clear();
    if (needsSecret && !requireSecret()) return;
    struct Work {
        Ending ending;
        std::optional<Credential> credential;
        std::optional<Finding> now;
    };
    const auto work = std::make_shared<Work>(Work{{finding.found, finishing, {}}, {}, {}});
    if (needsSecret)
        work->credential = useRecovery ? Credential::recoveryKey(secretOf(recoveryKey))
                                       : Credential::password(secretOf(password));
    running_.begin();
    progressFraction_.reset();
    statusMessage_ = QStringLiteral("Preparing…");
    const ProgressCallback report = ending_.reporter([this](const Progress& progress) {
        if (!running_.hears(progress)) return;
        progressFraction_ = progress.fraction;
        statusMessage_ = QString::fromStdString(progress.message);
        emit changed();
    });
    ending_.start(
        [work, finding, report, cancellation = running_.cancellation()] {
            const auto& operation =
                work->ending.finished ? InterruptedWork::finish : InterruptedWork::undo;
            try {
                work->ending.outcome =
                    operation(work->ending.found, work->credential, report, cancellation.get());
            } catch (const std::exception&) {
                work->now = lookAgain(finding);
                throw;
            }
        },
        [this, work](const std::exception_ptr& error) {
            if (error) return endFailed(error, work->now);
            takeAway();
            emit ended(work->ending);
        });
    emit changed();
}

void InterruptedFindings::endFailed(const std::exception_ptr& error,
                                    const std::optional<Finding>& now) {
    QString text;
    bool cancelled = false;
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& known) {
        text = QString::fromStdString(errorText(known));
        cancelled = dynamic_cast<const OperationCancelled*>(&known) != nullptr;
    }
    if (!now) {
        takeAway();
        emit failed(text, cancelled);
        return;
    }
    running_.end();
    wipe();
    findings_.front() = *now;
    errorMessage_ = text;
    wasCancelled_ = cancelled;
    emit changed();
}

void InterruptedFindings::takeAway() {
    running_.end();
    wipe();
    findings_.pop_front();
    errorMessage_.clear();
    useRecovery = false;
    emit fieldsChanged();
    emit changed();
}

void InterruptedFindings::wipe() {
    wipeText(password);
    wipeText(recoveryKey);
    emit fieldsChanged();
}
