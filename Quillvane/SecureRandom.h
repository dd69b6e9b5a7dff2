#pragma once

#include "Secret.h"

#include <cstddef>

/// Bytes from the system's cryptographically secure generator.
namespace SecureRandom {

/// `count` bytes. Stops the program when `count` is negative or the generator fails.
Secret bytes(std::ptrdiff_t count);

} // namespace SecureRandom
