#pragma once

#include <cstddef>
#include <span>

/// Makes the checksums of both LUKS2 headers right, wherever they are (LUKS2 On-Disk Format
/// Specification, section 2.1). `image` may hold anything.
void fixLuksChecksums(std::span<std::byte> image);
