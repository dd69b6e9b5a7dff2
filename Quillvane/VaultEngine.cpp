#include "VaultEngine.h"

#include "ItemPath.h"
#include "KeyStore.h"
#include "Platform.h"
#include "RecoveryError.h"
#include "VaultError.h"
#include "VaultKeys.h"

#include <exception>
#include <system_error>

namespace VaultEngine {
namespace {

std::optional<KeyMetadata> keyRecord(const Path& container) {
    const std::optional<std::string> text = KeyStore::read(container);
    return text ? KeyMetadata::decode(*text) : std::nullopt;
}

/// A key file belongs to an image. Where there is nothing at all it may have come first.
void requireImage(const Path& item) {
    std::error_code error;
    const auto entry = std::filesystem::symlink_status(item, error);
    if (!std::filesystem::exists(entry)) return;
    const auto status = std::filesystem::status(item, error);
    if (!std::filesystem::exists(status)) throw VaultError::sourceMissing();
    if (!std::filesystem::is_regular_file(status)) throw VaultError::notAQuillvane();
}

void requirePassword(const Secret& password) {
    if (password.empty()) throw VaultError::emptyPassword();
}

} // namespace

Secret vaultKey(const Path& container, const Credential& credential,
                const Cancellation* cancellation) {
    if (credential.kind() == Credential::Kind::recoveryKey)
        return VaultKeys::fromRecoveryKey(credential.text());
    requirePassword(credential.text());
    const auto record = keyRecord(container);
    if (!record) throw RecoveryError(RecoveryError::Case::metadataMissing);
    return VaultKeys::unseal(*record, credential.text(), cancellation);
}

Secret passphrase(const Path& container, const Credential& credential,
                  const Cancellation* cancellation) {
    if (credential.kind() == Credential::Kind::recoveryKey)
        return VaultKeys::imagePassphrase(VaultKeys::fromRecoveryKey(credential.text()));
    requirePassword(credential.text());
    const auto record = keyRecord(container);
    if (!record) return credential.text();
    return VaultKeys::imagePassphrase(VaultKeys::unseal(*record, credential.text(), cancellation));
}

Secret passwordData(const Secret& passphrase) {
    Secret line = passphrase;
    line.append("\n");
    return line;
}

OpenResult open(const Path& imageURL, const Credential& credential,
                const ProgressCallback& progress, Cancellation* cancellation) {
    const Path image = itemPath(imageURL);
    std::error_code unreadable;
    if (!std::filesystem::exists(image, unreadable)) throw VaultError::sourceMissing();
    progress({std::nullopt, "Opening the vault…"});
    const Secret line = passwordData(passphrase(image, credential, cancellation));
    MountInfo mountInfo = attach(image, line, /*browsable=*/true, cancellation);
    showVolume(mountInfo.mountPoint);
    progress({1.0, "Opened. The volume is mounted."});
    return {mountInfo.mountPoint, mountInfo};
}

void showVolume(const std::string& mountPoint) {
    try {
        ProcessRunner::retryingLaunch(
            [&] { return ProcessRunner::run(Platform::tools().open, {mountPoint}); });
    } catch (const std::exception&) {
        return;
    }
}

void changePassword(const Path& container, const Credential& current, const Secret& newPassword,
                    const Cancellation* cancellation) {
    requirePassword(newPassword);
    const Path item = itemPath(container);
    requireImage(item);
    const Secret key = vaultKey(item, current, cancellation);
    KeyStore::write(VaultKeys::seal(key, newPassword, cancellation), item);
}

} // namespace VaultEngine
