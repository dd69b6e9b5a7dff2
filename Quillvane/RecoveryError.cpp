#include "RecoveryError.h"

const char* RecoveryError::what() const noexcept {
    switch (kind_) {
    case Case::invalidRecoveryKey:
        return "Invalid recovery key. Check that you typed it correctly.";
    case Case::metadataMissing:
        return "The key file next to the item is missing: use your recovery key to get back in.";
    case Case::metadataCorrupt:
        return "The key file is unreadable: use your recovery key to get back in.";
    case Case::wrongPassword:
        return "Wrong password.";
    case Case::wrapFailed:
        break;
    }
    return "Couldn't protect the key.";
}
