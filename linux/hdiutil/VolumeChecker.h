#pragma once

#include "EncryptedImage.h"

/// Makes sure that the image holds a sound ext4 volume: one that was not closed properly is
/// checked and repaired. Throws `ImageDamaged` when that fails, `ToolError` when it would be
/// needed on an image that is `readOnly`, `std::system_error` on I/O.
void checkVolume(EncryptedImage& image, bool readOnly);
