#pragma once

#include <filesystem>

/// The directory for what lives no longer than the user's session, made when missing:
/// "quillvane", mode 0700, in $XDG_RUNTIME_DIR, else /run/user/UID, else /run for root, else
/// ~/.cache; each only if it is the user's and not for everybody to write to. Throws `ToolError`
/// when there is none such, or "quillvane" belongs to someone else or others may enter it.
std::filesystem::path runtimeDirectory();

/// The user's home directory: $HOME when absolute, else as the account says. Throws `ToolError`.
std::filesystem::path homeDirectory();
