#include "VaultError.h"

#include "ByteCount.h"

#include <utility>

VaultError::VaultError(Case kind, std::string description)
    : kind_(kind), description_(std::move(description)) {}

VaultError VaultError::alreadyLocked(const std::string& name) {
    return {Case::alreadyLocked,
            "\"" + name + "\" already exists here. Remove or rename it first."};
}

VaultError VaultError::insufficientSpace(std::int64_t needed, std::int64_t available) {
    return {Case::insufficientSpace, "Not enough disk space. You need at least " +
                                         ByteCount::text(needed) + " free, but only " +
                                         ByteCount::text(available) +
                                         " is available. Free up space and try again."};
}

VaultError VaultError::createFailed(const std::string& detail) {
    return {Case::createFailed, "Couldn't create the encrypted vault.\n" + detail};
}

VaultError VaultError::attachFailed(const std::string& detail) {
    return {Case::attachFailed, "Couldn't mount the image.\n" + detail};
}

VaultError VaultError::copyFailed(const std::string& detail) {
    return {Case::copyFailed, "Couldn't copy the contents into the vault.\n" + detail};
}

VaultError VaultError::verificationFailed(const std::string& detail) {
    return {Case::verificationFailed,
            "Data verification failed. Your original folder was left untouched.\n" + detail};
}

VaultError VaultError::detachFailed(const std::string& detail) {
    return {Case::detachFailed, "Couldn't eject the volume.\n" + detail};
}

VaultError VaultError::deleteFailed(const std::string& original, const std::string& vault,
                                    const std::string& leftBehind) {
    return {Case::deleteFailed, "Your data is safe in the vault (" + vault +
                                    "), but the original folder \"" + original +
                                    "\" couldn't be deleted. Delete it manually." +
                                    (leftBehind.empty() ? "" : "\nBut first: " + leftBehind)};
}

VaultError VaultError::renameFailed(const std::string& detail) {
    return {Case::renameFailed, "Final rename failed.\n" + detail};
}

VaultError VaultError::targetFolderExists(const std::string& name) {
    return {Case::targetFolderExists,
            "A folder named \"" + name +
                "\" already exists here. Rename or remove it before removing the password."};
}

VaultError VaultError::extractFailed(const std::string& detail) {
    return {Case::extractFailed,
            "Couldn't extract the contents. The encrypted vault was left untouched.\n" + detail};
}

VaultError VaultError::emptyPassword() {
    return {Case::emptyPassword, "Password can't be empty."};
}

VaultError VaultError::passwordMismatch() {
    return {Case::passwordMismatch, "The two passwords don't match."};
}

VaultError VaultError::sourceMissing() {
    return {Case::sourceMissing, "The selected item no longer exists."};
}

VaultError VaultError::notADirectory() {
    return {Case::notADirectory, "The selected item isn't a folder."};
}

VaultError VaultError::sourceIsPackageOrHidden() {
    return {Case::sourceIsPackageOrHidden,
            "Choose a regular folder (not a package or a system volume)."};
}

VaultError VaultError::mountPointNotFound() {
    return {Case::mountPointNotFound, "Couldn't determine the volume's mount point."};
}

VaultError VaultError::wrongPassword() {
    return {Case::wrongPassword, "Wrong password: can't open the vault."};
}

VaultError VaultError::notAQuillvane() {
    return {Case::notAQuillvane, "Choose a valid .quillvane item."};
}

VaultError VaultError::detachBusy() {
    return {Case::detachBusy,
            "The folder is in use (open files): it will close automatically once it's free."};
}
