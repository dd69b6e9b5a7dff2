#pragma once

#include "Cancellation.h"
#include "TaskScope.h"
#include "VaultEngine.h"

#include <QObject>
#include <QString>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include <memory>
#include <optional>

/// What is to be told about a chosen folder or item: its name, its place and what it holds, which
/// is counted in the background. All texts are empty while nothing is chosen.
class ItemDetail : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QUrl url READ url WRITE setUrl NOTIFY urlChanged)
    /// A folder's files are counted, an item has a size alone.
    Q_PROPERTY(bool isFolder READ isFolder WRITE setIsFolder NOTIFY isFolderChanged)
    Q_PROPERTY(QString name READ name NOTIFY urlChanged)
    /// The folder that holds it, with "~" for the user's own.
    Q_PROPERTY(QString location READ location NOTIFY urlChanged)
    /// "Calculating…", then what was found at `url`, never at an earlier one.
    Q_PROPERTY(QString text READ text NOTIFY textChanged)

public:
    using QObject::QObject;
    ~ItemDetail() override;

    /// Where all details count. To be called before the first of them gets a URL; the tasks must
    /// outlive them all.
    static void setTasks(BackgroundTasks& tasks);

    QUrl url() const { return url_; }
    void setUrl(const QUrl& url);
    bool isFolder() const { return isFolder_; }
    void setIsFolder(bool isFolder);
    QString name() const;
    QString location() const;
    QString text() const;

signals:
    void urlChanged();
    void isFolderChanged();
    void textChanged();

private:
    void count();
    void startCounting();
    void stopCounting();

    QUrl url_;
    bool isFolder_ = false;
    std::optional<VaultEngine::Tallies> tallies_;
    /// Made anew for every count, so that what an older one brings is dropped.
    std::optional<TaskScope> scope_;
    /// Ends the count that is running, which nobody waits for any more.
    std::shared_ptr<Cancellation> cancellation_;
};
