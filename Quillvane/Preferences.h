#pragma once

#include <QSettings>

#include <filesystem>
#include <memory>

/// The user's preferences, and the place for lock files. Neither ever holds a secret.
namespace Preferences {

std::unique_ptr<QSettings> open();
/// A directory that only the user can enter. Should it not be there, and not be to be made, locking
/// fails, which its users cope with.
std::filesystem::path lockDirectory();

} // namespace Preferences
