#pragma once

#include "Secret.h"

#include <cstddef>
#include <cstdint>
#include <span>

class Cancellation;

/// Key derivation from passwords.
namespace KDF {

/// PBKDF2 with HMAC-SHA-256 over the password's bytes as they stand; takes noticeable time, and
/// with the count of a hostile key file an hour. A request through `cancellation` ends it within
/// milliseconds with `OperationCancelled`. Stops the program when `iterations` is below 1 or above
/// 4294967295, or the primitive fails.
Secret pbkdf2(const Secret& password, std::span<const std::uint8_t> salt, std::int64_t iterations,
              std::size_t length, const Cancellation* cancellation = nullptr);

} // namespace KDF
