#pragma once

#include "EncryptedImage.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// The plaintext of an image read and written at any byte: whole blocks go straight through,
/// the parts of blocks at either end are read, changed and written back. One thread at a time.
class PlaintextFile {
public:
    explicit PlaintextFile(EncryptedImage& image) : image_(image) {}

    std::uint64_t size() const noexcept { return image_.blockCount() * EncryptedImage::blockSize; }
    /// Answers the bytes from `offset`, fewer at the end; valid until the next call.
    std::span<const std::byte> read(std::uint64_t offset, std::size_t length);
    /// Throws `std::system_error` ENOSPC beyond the end; then nothing is written.
    void write(std::uint64_t offset, std::span<const std::byte> from);
    void sync() { image_.sync(); }

private:
    EncryptedImage& image_;
    std::vector<std::byte> buffer_;
};
