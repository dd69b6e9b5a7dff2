#pragma once

#include "EncryptedImage.h"

#include <cstdint>
#include <string_view>

/// Decides from a LUKS2 header's metadata whether this tool opens the image.
///
/// The library believes what a header says: costs that take years, ciphers that encrypt nothing,
/// payloads that are a plain copy of the file. So a header is measured against the short list of
/// what we and ordinary LUKS2 tools write, before any key is derived from it.
///
/// `json` is the metadata as libcryptsetup dumps it, `fileSize` the image's length in bytes.
/// Throws `ImageDamaged` when payload and file do not fit together, `ImageNotSupported` for
/// everything that is not on the list.
EncryptedImage::Geometry checkLuksHeader(std::string_view json, std::uint64_t fileSize);
