#pragma once

#include "BlockedSignals.h"
#include "EncryptedImage.h"

#include <cstdint>
#include <string_view>

/// Makes an empty ext4 volume in the image. Throws `ToolError`, `std::system_error`; `Interrupted`
/// when one of `signals` comes.
void formatVolume(EncryptedImage& image, std::string_view volumeName,
                  const BlockedSignals& signals);

/// The payload, in bytes, that an image begins with that is to hold `content` bytes of files.
std::uint64_t payloadFor(std::uint64_t content);

/// As much of a volume's name as fits into an ext4 label: at most 16 bytes, no broken character.
std::string_view labelFor(std::string_view volumeName);
