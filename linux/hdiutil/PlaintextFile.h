#pragma once

#include "EncryptedImage.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// The plaintext of an image read and written at any byte: whole blocks go straight through,
/// the parts of blocks at either end are read, changed and written back. One thread at a time.
///
/// When the image has failed once, nothing is written any more: whoever repairs a volume must not
/// go on with half of it. Failures are `std::system_error`.
class PlaintextFile {
public:
    explicit PlaintextFile(EncryptedImage& image) : image_(image) {}

    std::uint64_t size() const noexcept { return image_.blockCount() * EncryptedImage::blockSize; }
    /// Answers the bytes from `offset`, fewer at the end; valid until the next call.
    std::span<const std::byte> read(std::uint64_t offset, std::size_t length);
    /// ENOSPC beyond the end; then nothing is written.
    void write(std::uint64_t offset, std::span<const std::byte> from);
    void sync();
    /// The errno of the image's first failure, 0 when there was none. Any thread may ask.
    int failure() const noexcept { return failure_; }

private:
    void readBlocks(std::uint64_t first, std::span<std::byte> into);
    void writeBlocks(std::uint64_t first, std::span<const std::byte> from);
    template <typename Work> void noting(Work work);

    EncryptedImage& image_;
    std::atomic<int> failure_ = 0;
    std::vector<std::byte> buffer_;
};
