#pragma once

#include "Clock.h"

#include <QAbstractListModel>

#include <string>
#include <vector>

/// One open Smart Folder. Paths are the file system's bytes.
struct ActiveSmartFolder {
    std::string id; ///< equal to `mountPath`
    std::string name;
    std::string lockedPath;
    std::string mountPath;
    Clock::Time mountedAt;
    Clock::Time idleSince;

    bool operator==(const ActiveSmartFolder&) const = default;
};

/// The open Smart Folders in the order in which they were opened, as a model for the window. For
/// the main thread.
class SmartFolderList : public QAbstractListModel {
    Q_OBJECT

public:
    enum Role {
        idRole = Qt::UserRole,
        nameRole,
        lockedPathRole,
        mountPathRole,
        mountedAtRole,
        idleSinceRole
    };

    using QAbstractListModel::QAbstractListModel;

    const std::vector<ActiveSmartFolder>& entries() const noexcept { return entries_; }
    void append(ActiveSmartFolder entry);
    /// Without effect when no entry has this identity; so are the next.
    void remove(const std::string& id);
    void replace(const std::string& id, ActiveSmartFolder entry);
    void setIdleSince(const std::string& id, Clock::Time time);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

private:
    /// `entries_.end()` when there is none.
    std::vector<ActiveSmartFolder>::iterator find(const std::string& id);

    std::vector<ActiveSmartFolder> entries_;
};
