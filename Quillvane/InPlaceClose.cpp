#include "InPlaceClose.h"

#include "KeyStore.h"
#include "Platform.h"
#include "VaultEngine.h"
#include "VaultError.h"

bool closeInPlace(const std::filesystem::path& item, const std::string& mountPath) {
    std::error_code unreadable;
    const auto type = std::filesystem::status(item, unreadable).type();
    if (type == std::filesystem::file_type::not_found && VaultEngine::isMounted(mountPath))
        throw ItemGoneError(item);
    VaultEngine::deactivateInPlace(mountPath);
    // Nothing at the path need not mean closed: a directory above may have been renamed just now.
    if (const auto place = Platform::placeOfVolumeOf(item.string()))
        throw VaultError::detachFailed("The folder is open at " + *place);
    KeyStore::setHidden(item, false);
    return !Platform::setHidden(item, false);
}

ItemGoneError::ItemGoneError(const std::filesystem::path& item)
    : std::runtime_error("\"" + item.filename().string() +
                         "\" isn't there any more. Copy what you need out of its open folder: it "
                         "stays open, because closing it would lose what is in it.") {}
