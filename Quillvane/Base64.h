#pragma once

#include "Secret.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

/// Standard Base64 with padding and without line breaks.
namespace Base64 {

Secret encode(std::span<const std::uint8_t> data);
/// Nothing unless `text` is exactly what `encode` gives for some bytes.
std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

} // namespace Base64
