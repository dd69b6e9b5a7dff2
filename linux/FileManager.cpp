#include "Quillvane/FileManager.h"

#include "Quillvane/FileUrl.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

void FileManager::reveal(const std::filesystem::path& item, BackgroundTasks& tasks) {
    QDBusMessage request = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    request << QStringList{QString::fromLatin1(fileUrl(item).toEncoded())} << QString();
    auto* const watcher =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(request));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [item, &tasks, watcher] {
        if (QDBusPendingReply<>(*watcher).isError()) show(item.parent_path(), tasks);
        watcher->deleteLater();
    });
}
