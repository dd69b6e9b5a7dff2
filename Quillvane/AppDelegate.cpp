#include "AppDelegate.h"

#include "AppIcon.h"
#include "FileUrl.h"
#include "OpenRouter.h"

#include <QByteArray>
#include <QFileOpenEvent>
#include <QGuiApplication>
#include <QIcon>

#include <algorithm>
#include <utility>

namespace {

/// The last component decides, whether or not a slash follows it.
bool namesItem(const QUrl& url) {
    std::filesystem::path path = filePath(url);
    if (!path.has_filename()) path = path.parent_path();
    const QByteArray extension = QByteArray::fromStdString(path.extension().string());
    return extension.toLower() == ".quillvane";
}

} // namespace

AppDelegate::AppDelegate() {
    connect(this, &AppDelegate::itemFound, &OpenRouter::shared(), &OpenRouter::setPendingContainer,
            Qt::QueuedConnection);
    connect(this, &AppDelegate::requestBegun, this, &AppDelegate::openRequested,
            Qt::QueuedConnection);
    QCoreApplication::instance()->installEventFilter(this);
}

void AppDelegate::applicationDidFinishLaunching() {
    const QIcon icon = appIcon();
    if (!icon.isNull()) QGuiApplication::setWindowIcon(icon);
}

void AppDelegate::open(const QList<QUrl>& urls) {
    const auto item = std::find_if(urls.begin(), urls.end(), namesItem);
    if (item != urls.end()) emit itemFound(*item, {});
}

bool AppDelegate::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::FileOpen) return QObject::eventFilter(watched, event);
    // Files opened together come one by one, all of them before the event loop goes on.
    if (requested_.isEmpty()) emit requestBegun({});
    requested_.append(static_cast<QFileOpenEvent*>(event)->url());
    return true;
}

void AppDelegate::openRequested() {
    open(std::exchange(requested_, {}));
}
