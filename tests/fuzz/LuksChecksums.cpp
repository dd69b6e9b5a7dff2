#include "LuksChecksums.h"

#include <openssl/sha.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <endian.h>

namespace {

constexpr std::size_t sizeOffset = 8;
constexpr std::size_t checksumOffset = 448;
constexpr std::size_t checksumField = 64;
constexpr std::size_t smallest = 16384;
constexpr std::size_t largest = 4 * 1024 * 1024;

/// Answers the header's length, or 0.
std::size_t fixHeader(std::span<std::byte> header) {
    if (header.size() < smallest) return 0;
    std::uint64_t size = 0;
    std::memcpy(&size, header.data() + sizeOffset, sizeof size);
    size = be64toh(size);
    if (size < smallest || size > largest || size > header.size()) return 0;
    auto* field = header.data() + checksumOffset;
    std::fill_n(field, checksumField, std::byte{0});
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(header.data()), size, digest);
    std::memcpy(field, digest, sizeof digest);
    return size;
}

} // namespace

void fixLuksChecksums(std::span<std::byte> image) {
    const std::size_t size = fixHeader(image);
    if (size != 0) fixHeader(image.subspan(size));
}
