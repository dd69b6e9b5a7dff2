#pragma once

#include "FileLock.h"

#include <QSettings>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// The list of open Smart Folders in the user's preferences, which outlives the program.
///
/// All programs of a user that manage Smart Folders share the one list. Who manages a folder holds
/// a lock for it, which ends with the program however it ends; so a folder in the list without a
/// living manager is known as left behind. For the main thread.
class SmartFolderStore {
public:
    struct Record {
        std::string name;
        std::string container;
        std::string mountPath;

        bool operator==(const Record&) const = default;
    };
    /// Opens the preferences anew: an object that has met an error once reports it for ever.
    using OpenPreferences = std::function<std::unique_ptr<QSettings>()>;

    /// Lock files go to `lockDirectory`. Where there is no such directory nothing is locked.
    SmartFolderStore(OpenPreferences openPreferences, std::filesystem::path lockDirectory);

    /// The list; nothing when it is missing or is no array of text dictionaries. Dictionaries that
    /// lack a member are left out.
    std::optional<std::vector<Record>> read() const;
    /// Rewrites the list: records of mount paths that are not `managed` stay, then come `own`.
    /// False when it could not be saved.
    [[nodiscard]] bool write(const std::vector<Record>& own, const std::set<std::string>& managed);

    /// Makes this process the folder's manager; false when another living process is.
    bool claim(const std::string& mountPath);
    void release(const std::string& mountPath);
    /// Whether another living process is the folder's manager.
    bool claimedElsewhere(const std::string& mountPath) const;

private:
    std::filesystem::path lockFile(const std::string& name) const;

    OpenPreferences openPreferences_;
    std::filesystem::path lockDirectory_;
    std::map<std::string, FileLock> claims_;
};
