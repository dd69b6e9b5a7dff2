#pragma once

#include "BackgroundTasks.h"

#include <filesystem>

/// The desktop's file manager. Best effort: nothing depends on it, and nobody waits for it. For the
/// main thread; `tasks` must outlive what is begun.
namespace FileManager {

/// Shows the folder's contents.
void show(const std::filesystem::path& folder, BackgroundTasks& tasks);
/// Shows the item selected in its folder; where that cannot be had, the folder alone. One body per
/// system.
void reveal(const std::filesystem::path& item, BackgroundTasks& tasks);

} // namespace FileManager
