#pragma once

#include "EncryptedImage.h"
#include "Quillvane/Secret.h"

/// The LUKS2 header of an image: written by `format`, opened by `unlock`.
///
/// Both work on an open file and keep it open. libcryptsetup takes flock(2) on the file by itself;
/// the caller must not hold one.
namespace LuksContainer {

struct Unlocked {
    Secret volumeKey;
    EncryptedImage::Geometry geometry;
};

/// Bytes before the payload of an image that we make.
constexpr std::uint64_t payloadOffset = 1024 * 1024;

/// Writes a fresh header with one keyslot for `passphrase` to the file, which must be longer than
/// `payloadOffset` and writable. Throws `ToolError`.
Unlocked format(int fd, const Secret& passphrase);

/// Throws `WrongPassphrase`, `ImageDamaged`, `ImageNotSupported`, other `ToolError`s when the key
/// could not be derived, `std::system_error` on I/O. Takes at most two minutes.
Unlocked unlock(int fd, const Secret& passphrase);

} // namespace LuksContainer
