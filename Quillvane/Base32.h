#pragma once

#include "Secret.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// The standard Base32 alphabet, without padding, as recovery keys are written.
namespace Base32 {

Secret encode(std::span<const std::uint8_t> data);
/// Encoded and cut into runs of `group` (at least 1) characters joined by "-".
Secret encodeGrouped(std::span<const std::uint8_t> data, std::size_t group);
/// Upper-cased by the rules of Unicode, then without all characters outside the alphabet.
/// A text of more than 1 MiB gives nothing.
Secret normalize(const Secret& text);
/// Nothing when a character is outside the alphabet. Excess bits at the end are dropped.
std::optional<Secret> decode(const Secret& text);

} // namespace Base32
