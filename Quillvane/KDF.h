#pragma once

#include "Secret.h"

#include <cstddef>
#include <cstdint>
#include <span>

/// Key derivation from passwords.
namespace KDF {

/// PBKDF2 with HMAC-SHA-256 over the password's bytes as they stand; takes noticeable time. Stops
/// the program when `iterations` is below 1 or above 4294967295, or the primitive fails.
Secret pbkdf2(const Secret& password, std::span<const std::uint8_t> salt, std::int64_t iterations,
              std::size_t length);

} // namespace KDF
