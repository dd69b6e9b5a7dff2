#pragma once

#include <cstddef>
#include <span>

/// Makes the checksums of an ext4 volume right (metadata_csum, see Linux,
/// Documentation/filesystems/ext4): superblock, group descriptors, bitmaps, inodes, and the
/// directory, extent and attribute blocks that they lead to, two levels deep. Whatever makes no
/// sense is left as it is. `volume` begins with the volume and may hold anything.
void fixVolumeChecksums(std::span<std::byte> volume);
