#pragma once

#include "BlockDevice.h"

/// Looks at a volume's superblock before libext2fs does.
///
/// The library calculates with what it finds there, and believes most of it. So every number that
/// sizes, places or counts are made of is held against what ext4 allows and what the device holds.
/// A volume that passes may still be damaged anywhere else: see `VolumeVerifier`.
///
/// Throws `VolumeNotSupported` for a sound volume that cannot be used here, `VolumeCorrupt` for
/// everything else, `std::system_error` on I/O.
void verifySuperblock(BlockDevice& device);

/// Throws `VolumeCorrupt` when the device holds no ext4 or ends before the volume does: nothing can
/// be repaired there.
void verifyLength(BlockDevice& device);
