#pragma once

#include <QObject>
#include <QUrl>

/// Where an item that the file manager wants opened, and a folder that it wants protected, wait
/// until the window handles them.
///
/// For the main thread. Whoever handles one sets none; the router never does so by itself.
class OpenRouter : public QObject {
    Q_OBJECT
    /// The item's "file:" URL; empty when there is none.
    Q_PROPERTY(QUrl pendingContainer READ pendingContainer WRITE setPendingContainer NOTIFY
                   pendingContainerChanged)

public:
    /// The one router of the program, made on first use.
    static OpenRouter& shared();

    OpenRouter() = default;

    QUrl pendingContainer() const { return pendingContainer_; }
    void setPendingContainer(const QUrl& item);
    /// The folder's "file:" URL, likewise.
    QUrl pendingFolder() const { return pendingFolder_; }
    void setPendingFolder(const QUrl& folder);

signals:
    /// An item came, be it the one that waits already, or the item was taken away.
    void pendingContainerChanged();
    void pendingFolderChanged();

private:
    QUrl pendingContainer_;
    QUrl pendingFolder_;
};
