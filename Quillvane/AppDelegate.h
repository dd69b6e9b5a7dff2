#pragma once

#include <QList>
#include <QObject>
#include <QUrl>

/// What the system tells the application: that it has been launched, and which items to open.
///
/// For the main thread; made after the application object, whose open-document events it takes.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    AppDelegate();

    /// Gives the application its icon; without effect when there is none.
    void applicationDidFinishLaunching();
    /// Hands the first URL that names an item to `OpenRouter`, from the main event loop, and leaves
    /// out the others. An item is told by its extension alone, in capitals or not.
    void open(const QList<QUrl>& urls);

    /// Takes the open-document events of the application object.
    bool eventFilter(QObject* watched, QEvent* event) override;

signals:
    // Connected by the delegate itself, to carry on from the event loop.
    void itemFound(const QUrl& item, QPrivateSignal);
    void requestBegun(QPrivateSignal);

private:
    void openRequested();

    QList<QUrl> requested_; ///< from events, of which each names one file
};
