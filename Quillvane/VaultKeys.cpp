#include "VaultKeys.h"

#include "Base32.h"
#include "Base64.h"
#include "KDF.h"
#include "RecoveryError.h"
#include "SealedBox.h"
#include "SecureRandom.h"

#include <optional>
#include <string>

namespace VaultKeys {
namespace {

constexpr std::size_t saltBytes = 16;
constexpr std::size_t keyEncryptionKeyBytes = 32;

std::string base64Text(std::span<const std::uint8_t> bytes) {
    return std::string(Base64::encode(bytes).text());
}

} // namespace

Secret fromRecoveryKey(const Secret& text) {
    std::optional<Secret> key = Base32::decode(Base32::normalize(text));
    if (!key || key->size() != vaultKeyBytes)
        throw RecoveryError(RecoveryError::Case::invalidRecoveryKey);
    return *key;
}

KeyMetadata seal(const Secret& vaultKey, const Secret& password, const Cancellation* cancellation) {
    const Secret salt = SecureRandom::bytes(saltBytes);
    const Secret key = KDF::pbkdf2(password, salt.bytes(), KeyMetadata::currentIterations,
                                   keyEncryptionKeyBytes, cancellation);
    const auto wrapped = SealedBox::seal(key, vaultKey);
    if (!wrapped) throw RecoveryError(RecoveryError::Case::wrapFailed);
    KeyMetadata metadata;
    metadata.salt = base64Text(salt.bytes());
    metadata.wrapped = base64Text(*wrapped);
    return metadata;
}

Secret unseal(const KeyMetadata& metadata, const Secret& password,
              const Cancellation* cancellation) {
    const auto salt = Base64::decode(metadata.salt);
    const auto wrapped = Base64::decode(metadata.wrapped);
    if (!salt || !wrapped) throw RecoveryError(RecoveryError::Case::metadataCorrupt);
    const Secret key =
        KDF::pbkdf2(password, *salt, metadata.iterations, keyEncryptionKeyBytes, cancellation);
    std::optional<Secret> vaultKey = SealedBox::open(key, *wrapped);
    if (!vaultKey) throw RecoveryError(RecoveryError::Case::wrongPassword);
    return *vaultKey;
}

Secret imagePassphrase(const Secret& vaultKey) {
    return Base64::encode(vaultKey.bytes());
}

} // namespace VaultKeys
