#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

/// Closes the Smart Folder of `item` at `mountPath` and shows the item again; false when it is
/// closed but the item could not be shown. Refuses, with `ItemGoneError`, when the item is not
/// there any more: closing would destroy the last copy of what is in the folder. Throws what
/// `VaultEngine::deactivateInPlace` throws.
bool closeInPlace(const std::filesystem::path& item, const std::string& mountPath);

/// An open folder's item has been deleted or moved away. The text says what to do.
class ItemGoneError : public std::runtime_error {
public:
    explicit ItemGoneError(const std::filesystem::path& item);
};
