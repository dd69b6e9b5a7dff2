#include "SmartFolderStore.h"

#include "PreferenceList.h"
#include "Preferences.h"

#include <QCryptographicHash>
#include <QLockFile>

#include <chrono>
#include <thread>
#include <utility>

namespace {

const QString persistKey = Preferences::keyOf(QStringLiteral("quillvane.smartActive.v1"));
const QString nameKey = QStringLiteral("name");
const QString containerKey = QStringLiteral("container");
const QString mountPathKey = QStringLiteral("mountPath");

constexpr std::chrono::seconds longestWait{2};
constexpr std::chrono::milliseconds pause{10};

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

std::optional<std::vector<SmartFolderStore::Record>> recordsIn(QSettings& preferences) {
    const auto list = PreferenceList::read(preferences, persistKey);
    if (!list) return std::nullopt;
    std::vector<SmartFolderStore::Record> records;
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

/// Takes the lock, or gives up after a while.
FileLock patientLock(const std::filesystem::path& file) {
    const auto end = std::chrono::steady_clock::now() + longestWait;
    while (true) {
        FileLock lock(file);
        if (lock.state() != FileLock::State::heldElsewhere ||
            std::chrono::steady_clock::now() >= end)
            return lock;
        std::this_thread::sleep_for(pause);
    }
}

/// A program killed while QSettings writes can leave its lock file without content, which QSettings
/// waits for for half a minute. A second is enough; a lock that is held is not taken away.
void clearTornLock(const QSettings& preferences) {
    QLockFile lock(preferences.fileName() + ".lock");
    lock.setStaleLockTime(std::chrono::seconds(1));
    if (lock.tryLock(std::chrono::seconds(2))) lock.unlock();
}

} // namespace

SmartFolderStore::SmartFolderStore(OpenPreferences openPreferences,
                                   std::filesystem::path lockDirectory)
    : openPreferences_(std::move(openPreferences)), lockDirectory_(std::move(lockDirectory)) {}

std::optional<std::vector<SmartFolderStore::Record>> SmartFolderStore::read() const {
    const auto preferences = openPreferences_();
    clearTornLock(*preferences);
    return recordsIn(*preferences);
}

bool SmartFolderStore::write(const std::vector<Record>& own, const std::set<std::string>& managed) {
    // Between reading and writing no other program of ours may write. Should the lock not be had,
    // writing is still better than forgetting an open folder.
    const FileLock turn = patientLock(lockFile("list"));
    const auto preferences = openPreferences_();
    clearTornLock(*preferences);
    std::vector<QVariantMap> list;
    for (const Record& record : recordsIn(*preferences).value_or(std::vector<Record>{}))
        if (!managed.contains(record.mountPath)) list.push_back(dictionary(record));
    for (const Record& record : own) list.push_back(dictionary(record));
    PreferenceList::write(*preferences, persistKey, list);
    preferences->sync();
    return preferences->status() == QSettings::NoError;
}

bool SmartFolderStore::claim(const std::string& mountPath) {
    if (claims_.contains(mountPath)) return true;
    FileLock lock(lockFile(mountPath));
    if (lock.state() == FileLock::State::heldElsewhere) return false;
    claims_.emplace(mountPath, std::move(lock));
    return true;
}

void SmartFolderStore::release(const std::string& mountPath) {
    claims_.erase(mountPath);
}

bool SmartFolderStore::claimedElsewhere(const std::string& mountPath) const {
    return !claims_.contains(mountPath) &&
           FileLock(lockFile(mountPath)).state() == FileLock::State::heldElsewhere;
}

std::filesystem::path SmartFolderStore::lockFile(const std::string& name) const {
    const QByteArray hash =
        QCryptographicHash::hash(QByteArray::fromStdString(name), QCryptographicHash::Sha256);
    return lockDirectory_ / ("smart-" + hash.toHex().first(32).toStdString() + ".lock");
}
