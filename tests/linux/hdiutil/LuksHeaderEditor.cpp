#include "LuksHeaderEditor.h"

#include <openssl/sha.h>

#include <stdexcept>
#include <string>

namespace {

// LUKS2 On-Disk Format Specification, section 2.1: a binary header of 4096 bytes, the metadata
// after it, and in the header the SHA-256 of both with its own place filled with zeros.
constexpr std::size_t copySize = 16384;
constexpr std::size_t binarySize = 4096;
constexpr std::size_t checksumOffset = 448;
constexpr std::size_t checksumField = 64;

void editCopy(ScratchImage& image, std::uint64_t offset,
              const std::function<void(nlohmann::json&)>& change) {
    const auto bytes = image.read(offset, copySize);
    std::string copy(bytes.begin(), bytes.end());
    nlohmann::json metadata = nlohmann::json::parse(copy.substr(binarySize).c_str());
    change(metadata);
    const std::string text = metadata.dump();
    if (text.size() >= copySize - binarySize) throw std::runtime_error("metadata too long");
    copy.replace(binarySize, std::string::npos, text);
    copy.resize(copySize, '\0');
    copy.replace(checksumOffset, checksumField, checksumField, '\0');
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(copy.data()), copy.size(), digest);
    copy.replace(checksumOffset, sizeof digest, reinterpret_cast<const char*>(digest),
                 sizeof digest);
    image.write(offset, copy);
}

} // namespace

void editLuksHeader(ScratchImage& image, const std::function<void(nlohmann::json&)>& change) {
    editCopy(image, 0, change);
    editCopy(image, copySize, change);
}
