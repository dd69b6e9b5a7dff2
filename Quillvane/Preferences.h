#pragma once

#include <QSettings>

#include <filesystem>
#include <memory>

/// The user's preferences, and the place for lock files. Neither ever holds a secret.
namespace Preferences {

/// Where other programs of this user's find them too. One body per system.
std::unique_ptr<QSettings> open();
/// What QSettings is to be told so that a preference is kept by this name, which has dots in it.
/// One body per system.
QString keyOf(const QString& name);
/// A directory that only the user can enter. Should it not be there, and not be to be made, locking
/// fails, which its users cope with.
std::filesystem::path lockDirectory();

} // namespace Preferences
