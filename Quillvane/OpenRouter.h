#pragma once

#include <QObject>
#include <QUrl>

/// Where an item that the file manager asked for waits until the window handles it.
///
/// For the main thread. Whoever handles the item sets none; the router never does so by itself.
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

signals:
    /// An item came, be it the one that waits already, or the item was taken away.
    void pendingContainerChanged();

private:
    QUrl pendingContainer_;
};
