#pragma once

#include "Quillvane/Credential.h"

#include <filesystem>
#include <optional>

/// Whether a living program manages the item's folder.
bool hasManager(const std::filesystem::path& item);

/// Opens the item in place and manages it, or without a credential takes over the folder that is
/// open but has lost its manager. Prints the folder's path on standard output and the
/// manager's messages on standard error, and returns when the folder is closed. Ctrl-C, SIGHUP and
/// SIGQUIT close it and are told that it stays open when it is in use; SIGTERM ends the program
/// even then.
///
/// Throws `QuietFailure` when the folder could not be opened, or is still open when the program has
/// to end; the reason has been printed. To be called once, on the main thread.
void runSmartFolder(const std::filesystem::path& path, std::optional<Credential> credential,
                    std::optional<int> minutes);
