#include "SmartFolderList.h"

#include <QDateTime>

#include <algorithm>
#include <utility>

namespace {

QDateTime dateTime(Clock::Time time) {
    using std::chrono::milliseconds;
    return QDateTime::fromMSecsSinceEpoch(
        std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count());
}

} // namespace

void SmartFolderList::append(ActiveSmartFolder entry) {
    const int row = rowCount();
    beginInsertRows({}, row, row);
    entries_.push_back(std::move(entry));
    endInsertRows();
}

void SmartFolderList::remove(const std::string& id) {
    const auto entry = find(id);
    if (entry == entries_.end()) return;
    const int row = static_cast<int>(entry - entries_.begin());
    beginRemoveRows({}, row, row);
    entries_.erase(entry);
    endRemoveRows();
}

void SmartFolderList::replace(const std::string& id, ActiveSmartFolder entry) {
    const auto place = find(id);
    if (place == entries_.end()) return;
    *place = std::move(entry);
    const QModelIndex changed = index(static_cast<int>(place - entries_.begin()));
    emit dataChanged(changed, changed);
}

void SmartFolderList::setIdleSince(const std::string& id, Clock::Time time) {
    const auto entry = find(id);
    if (entry == entries_.end()) return;
    entry->idleSince = time;
    const QModelIndex changed = index(static_cast<int>(entry - entries_.begin()));
    emit dataChanged(changed, changed, {idleSinceRole});
}

int SmartFolderList::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(entries_.size());
}

QVariant SmartFolderList::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid)) return {};
    const ActiveSmartFolder& entry = entries_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case idRole:
    case mountPathRole:
        return QString::fromStdString(entry.mountPath);
    case Qt::DisplayRole:
    case nameRole:
        return QString::fromStdString(entry.name);
    case lockedPathRole:
        return QString::fromStdString(entry.lockedPath);
    case mountedAtRole:
        return dateTime(entry.mountedAt);
    case idleSinceRole:
        return dateTime(entry.idleSince);
    default:
        return {};
    }
}

QHash<int, QByteArray> SmartFolderList::roleNames() const {
    return {{idRole, "folderId"},           {nameRole, "name"},
            {lockedPathRole, "lockedPath"}, {mountPathRole, "mountPath"},
            {mountedAtRole, "mountedAt"},   {idleSinceRole, "idleSince"}};
}

std::vector<ActiveSmartFolder>::iterator SmartFolderList::find(const std::string& id) {
    return std::ranges::find(entries_, id, &ActiveSmartFolder::id);
}
