#include "SmartFolderStore.h"

#include "PreferenceList.h"

#include <QCryptographicHash>
#include <QFile>

#include <chrono>
#include <utility>

namespace {

const QString persistKey = QStringLiteral("quillvane.smartActive.v1");
const QString nameKey = QStringLiteral("name");
const QString containerKey = QStringLiteral("container");
const QString mountPathKey = QStringLiteral("mountPath");

constexpr std::chrono::seconds longestWait{5};

/// Text, or bytes where a file name is not UTF-8.
QVariant preferenceValue(const std::string& bytes) {
    QString text = QString::fromStdString(bytes);
    if (text.toStdString() == bytes) return text;
    return QByteArray::fromStdString(bytes);
}

std::optional<std::string> bytesOf(const QVariant& value) {
    if (value.typeId() == QMetaType::QByteArray) return value.toByteArray().toStdString();
    if (value.typeId() == QMetaType::QString) return value.toString().toStdString();
    return std::nullopt;
}

QVariantMap dictionary(const SmartFolderStore::Record& record) {
    return {{nameKey, preferenceValue(record.name)},
            {containerKey, preferenceValue(record.container)},
            {mountPathKey, preferenceValue(record.mountPath)}};
}

} // namespace

SmartFolderStore::SmartFolderStore(QSettings& preferences, std::filesystem::path lockDirectory)
    : preferences_(preferences), lockDirectory_(std::move(lockDirectory)) {}

std::optional<std::vector<SmartFolderStore::Record>> SmartFolderStore::read() {
    preferences_.sync();
    const auto list = PreferenceList::read(preferences_, persistKey);
    if (!list) return std::nullopt;
    std::vector<Record> records;
    for (const QVariantMap& entry : *list) {
        for (const QVariant& value : entry)
            if (!bytesOf(value)) return std::nullopt;
        const auto name = bytesOf(entry.value(nameKey));
        const auto container = bytesOf(entry.value(containerKey));
        const auto mountPath = bytesOf(entry.value(mountPathKey));
        if (name && container && mountPath) records.push_back({*name, *container, *mountPath});
    }
    return records;
}

bool SmartFolderStore::write(const std::vector<Record>& own, const std::set<std::string>& managed) {
    // Between reading and writing no other program of ours may write. Should the lock not be had,
    // writing is still better than forgetting an open folder.
    const auto turn = lockFile("list");
    turn->tryLock(longestWait);

    std::vector<QVariantMap> list;
    for (const Record& record : read().value_or(std::vector<Record>{}))
        if (!managed.contains(record.mountPath)) list.push_back(dictionary(record));
    for (const Record& record : own) list.push_back(dictionary(record));
    PreferenceList::write(preferences_, persistKey, list);
    preferences_.sync();
    return preferences_.status() == QSettings::NoError;
}

void SmartFolderStore::claim(const std::string& mountPath) {
    if (claims_.contains(mountPath)) return;
    auto file = lockFile(mountPath);
    if (file->tryLock()) claims_.emplace(mountPath, std::move(file));
}

void SmartFolderStore::release(const std::string& mountPath) {
    claims_.erase(mountPath);
}

bool SmartFolderStore::claimedElsewhere(const std::string& mountPath) const {
    if (claims_.contains(mountPath)) return false;
    const auto file = lockFile(mountPath);
    return !file->tryLock() && file->error() == QLockFile::LockFailedError;
}

std::unique_ptr<QLockFile> SmartFolderStore::lockFile(const std::string& name) const {
    const QByteArray hash =
        QCryptographicHash::hash(QByteArray::fromStdString(name), QCryptographicHash::Sha256);
    const std::string fileName = "quillvane-smart-" + hash.toHex().first(32).toStdString();
    auto file = std::make_unique<QLockFile>(
        QFile::decodeName((lockDirectory_ / (fileName + ".lock")).c_str()));
    // Only the death of its holder frees a lock, not its age.
    file->setStaleLockTime(std::chrono::milliseconds(0));
    return file;
}
