#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

/// What is not as it should be after a folder was closed.
struct InPlaceClosed {
    bool stillHidden = false; ///< the item could not be shown again
    bool filesLeft = false; ///< the folder holds what came when the volume was gone: not encrypted

    /// What to tell of the files; `mountPath` is as `closeInPlace` got it.
    static std::string filesLeftText(const std::string& mountPath);
};

/// Closes the Smart Folder of `item` at `mountPath` and shows the item again. Refuses, with
/// `ItemGoneError`, when the item is not there any more: closing would destroy the last copy of
/// what is in the folder. Throws what `VaultEngine::deactivateInPlace` throws.
InPlaceClosed closeInPlace(const std::filesystem::path& item, const std::string& mountPath);

/// An open folder's item has been deleted or moved away. The text says what to do.
class ItemGoneError : public std::runtime_error {
public:
    explicit ItemGoneError(const std::filesystem::path& item);
};
