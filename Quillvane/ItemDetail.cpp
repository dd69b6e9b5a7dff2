#include "ItemDetail.h"

#include "ByteCount.h"
#include "Fatal.h"
#include "FileUrl.h"
#include "ItemPath.h"
#include "ThreadPriority.h"

#include <QDir>

namespace {

BackgroundTasks* sharedTasks = nullptr;

/// Empty when `url` names no file.
std::filesystem::path pathOf(const QUrl& url) {
    const std::filesystem::path named = filePath(url);
    return named.empty() ? named : itemPath(named);
}

QString displayed(const std::filesystem::path& path) {
    return QString::fromStdString(path.string());
}

} // namespace

void ItemDetail::setTasks(BackgroundTasks& tasks) {
    sharedTasks = &tasks;
}

ItemDetail::~ItemDetail() {
    stopCounting();
}

void ItemDetail::setUrl(const QUrl& url) {
    if (url == url_) return;
    url_ = url;
    emit urlChanged();
    count();
}

void ItemDetail::setIsFolder(bool isFolder) {
    if (isFolder == isFolder_) return;
    isFolder_ = isFolder;
    emit isFolderChanged();
    emit textChanged();
}

QString ItemDetail::name() const {
    const std::filesystem::path path = pathOf(url_);
    return displayed(path.has_filename() ? path.filename() : path);
}

QString ItemDetail::location() const {
    const QString folder = displayed(pathOf(url_).parent_path());
    const QString home = QDir::homePath();
    const bool atHome = folder == home || folder.startsWith(home + '/');
    return atHome ? '~' + folder.mid(home.size()) : folder;
}

QString ItemDetail::text() const {
    if (!tallies_) return scope_ ? QStringLiteral("Calculating…") : QString();
    const QString size = QString::fromStdString(ByteCount::text(tallies_->bytes));
    return isFolder_ ? QString::number(tallies_->count) + " files · " + size : size;
}

void ItemDetail::count() {
    stopCounting();
    scope_.reset();
    tallies_.reset();
    if (!url_.isEmpty()) startCounting();
    emit textChanged();
}

void ItemDetail::stopCounting() {
    if (cancellation_) cancellation_->request();
}

void ItemDetail::startCounting() {
    if (sharedTasks == nullptr) stopProgram("no tasks to count with");
    const auto found = std::make_shared<VaultEngine::Tallies>();
    cancellation_ = std::make_shared<Cancellation>();
    const auto work = [path = pathOf(url_), found, cancellation = cancellation_] {
        useUtilityPriority();
        *found = VaultEngine::tallies(path, cancellation.get());
    };
    scope_.emplace(*sharedTasks);
    scope_->start(work, [this, found](const std::exception_ptr& error) {
        // A count that failed is not worth a message: there is nothing to tell, then.
        if (error)
            scope_.reset();
        else
            tallies_ = *found;
        emit textChanged();
    });
}
