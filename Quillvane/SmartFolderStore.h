#pragma once

#include <QLockFile>
#include <QSettings>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// The list of open Smart Folders in the user's preferences, which outlives the program.
///
/// All programs of a user that manage Smart Folders share the one list. Who manages a folder holds
/// a lock file for it, which ends with the program however it ends; so a folder in the list without
/// a living manager is known as left behind. For the main thread.
class SmartFolderStore {
public:
    struct Record {
        std::string name;
        std::string container;
        std::string mountPath;

        bool operator==(const Record&) const = default;
    };

    /// The lock files go to `lockDirectory`, which must exist. `preferences` must outlive the
    /// store.
    SmartFolderStore(QSettings& preferences, std::filesystem::path lockDirectory);

    /// The list; nothing when it is missing or is no array of text dictionaries. Dictionaries that
    /// lack a member are left out.
    std::optional<std::vector<Record>> read();
    /// Rewrites the list: records of mount paths that are not `managed` stay, then come `own`.
    /// False when it could not be saved.
    [[nodiscard]] bool write(const std::vector<Record>& own, const std::set<std::string>& managed);

    /// Makes this process the folder's manager, if no other one is.
    void claim(const std::string& mountPath);
    void release(const std::string& mountPath);
    /// Whether another living process is the folder's manager.
    bool claimedElsewhere(const std::string& mountPath) const;

private:
    std::unique_ptr<QLockFile> lockFile(const std::string& name) const;
    std::optional<std::vector<Record>> readUnlocked();

    QSettings& preferences_;
    std::filesystem::path lockDirectory_;
    std::map<std::string, std::unique_ptr<QLockFile>> claims_;
};
