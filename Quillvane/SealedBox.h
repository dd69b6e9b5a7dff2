#pragma once

#include "Secret.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// AES-256-GCM without additional data, in the combined form: a 12-byte nonce, the ciphertext, a
/// 16-byte tag.
namespace SealedBox {

/// Seals under a 32-byte key with a fresh random nonce; nothing when the primitive fails.
std::optional<std::vector<std::uint8_t>> seal(const Secret& key, const Secret& plaintext);
/// The plaintext; nothing when `combined` is too short or was not sealed under this key.
std::optional<Secret> open(const Secret& key, std::span<const std::uint8_t> combined);

} // namespace SealedBox
