#pragma once

#include "BlockedSignals.h"
#include "EncryptedImage.h"
#include "Ext4Volume.h"

#include <memory>
#include <string>

/// Where the system has e2fsck.
extern const char* const systemE2fsck;

/// Opens the image's volume, which is sound then as far as `VolumeVerifier` looks.
///
/// One that was not closed properly, or is damaged, is given to `e2fsck` first, which repairs only
/// what it can without asking. A volume that is not sound afterwards is not opened, and is as
/// e2fsck left it: what might cost files is for a person to decide.
///
/// Throws `ImageDamaged` for such a volume; `VolumeCorrupt` when it would have to be repaired on an
/// image that is `readOnly` or is not all there, `VolumeNotSupported`; `Interrupted` when one of
/// `signals` ended the check; `ToolError` when there could be none, `std::system_error` on I/O.
std::unique_ptr<Ext4Volume> openSoundVolume(EncryptedImage& image, bool readOnly,
                                            const BlockedSignals& signals,
                                            const std::string& e2fsck = systemE2fsck);
