#pragma once

#include "KeyMetadata.h"
#include "Secret.h"

#include <cstddef>

class Cancellation;

/// The vault key of an item: random bytes whose Base64 text opens the image and whose Base32 text
/// is the recovery key.
namespace VaultKeys {

inline constexpr std::size_t vaultKeyBytes = 20;

/// The vault key that a recovery key stands for, typed in any case and grouping. Throws
/// `RecoveryError` (invalidRecoveryKey).
Secret fromRecoveryKey(const Secret& text);
/// The vault key sealed under `password` with a new salt and nonce. Throws `RecoveryError`
/// (wrapFailed) and `OperationCancelled`.
KeyMetadata seal(const Secret& vaultKey, const Secret& password,
                 const Cancellation* cancellation = nullptr);
/// Takes as long as the record asks for, unless it is cancelled. Throws `RecoveryError`
/// (metadataCorrupt, wrongPassword) and `OperationCancelled`.
Secret unseal(const KeyMetadata& metadata, const Secret& password,
              const Cancellation* cancellation = nullptr);
/// The text that opens the image of the item with this vault key.
Secret imagePassphrase(const Secret& vaultKey);

} // namespace VaultKeys
