#include "InPlaceClose.h"

#include "KeyStore.h"
#include "Platform.h"
#include "VaultEngine.h"
#include "VaultError.h"

namespace {

/// True also when nobody can tell: what is not encrypted must not go untold.
bool holdsFiles(const std::filesystem::path& folder) {
    std::error_code error;
    const auto status = std::filesystem::symlink_status(folder, error);
    return std::filesystem::is_directory(status) && !VaultEngine::isDirectoryEmpty(folder);
}

} // namespace

InPlaceClosed closeInPlace(const std::filesystem::path& item, const std::string& mountPath) {
    std::error_code unreadable;
    const auto type = std::filesystem::status(item, unreadable).type();
    if (type == std::filesystem::file_type::not_found && VaultEngine::isMounted(mountPath))
        throw ItemGoneError(item);
    VaultEngine::deactivateInPlace(mountPath);
    // Nothing at the path need not mean closed: a directory above may have been renamed just now.
    if (const auto place = Platform::placeOfVolumeOf(item.string()))
        throw VaultError::detachFailed("The folder is open at " + *place);
    KeyStore::setHidden(item, false);
    const bool stillHidden = static_cast<bool>(Platform::setHidden(item, false));
    return {stillHidden, holdsFiles(mountPath)};
}

std::string InPlaceClosed::filesLeftText(const std::string& mountPath) {
    const std::filesystem::path folder = mountPath;
    return "\"" + folder.filename().string() +
           "\" is closed, but a program has saved something in its folder since. That isn't "
           "encrypted: move it out of " +
           mountPath + ", and into it when it is open again.";
}

ItemGoneError::ItemGoneError(const std::filesystem::path& item)
    : std::runtime_error("\"" + item.filename().string() +
                         "\" isn't there any more. Copy what you need out of its open folder: it "
                         "stays open, because closing it would lose what is in it.") {}
