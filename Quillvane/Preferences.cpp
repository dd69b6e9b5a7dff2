#include "Preferences.h"

#include <QFile>
#include <QStandardPaths>

#include <system_error>

namespace Preferences {

namespace fs = std::filesystem;

fs::path lockDirectory() {
    const QString caches = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    fs::path directory = fs::path(QFile::encodeName(caches).toStdString()) / "quillvane";
    std::error_code error;
    if (fs::create_directories(directory, error))
        fs::permissions(directory, fs::perms::owner_all, error);
    return directory;
}

} // namespace Preferences
