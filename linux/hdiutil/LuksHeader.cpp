#include "LuksHeader.h"

#include "ToolError.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <string>

namespace {

using Json = nlohmann::json;

constexpr std::uint64_t largestPbkdf2Iterations = 10'000'000;
constexpr std::uint64_t largestArgon2Time = 64;
constexpr std::uint64_t largestArgon2Kibibytes = 4ULL * 1024 * 1024;
constexpr std::uint64_t largestArgon2Threads = 16;
constexpr std::uint64_t stripes = 4000;

void require(bool condition, const char* detail) {
    if (!condition) throw ImageNotSupported(detail);
}

// The metadata keeps 64-bit numbers as decimal text.
std::uint64_t decimal(const Json& value) {
    const auto& text = value.get_ref<const std::string&>();
    std::uint64_t number = 0;
    const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    require(error == std::errc() && rest == text.data() + text.size(), "bad number");
    return number;
}

void requireCost(const Json& value, std::uint64_t largest) {
    require(value.is_number_integer(), "bad key derivation");
    require(value.is_number_unsigned() && value.get<std::uint64_t>() >= 1 &&
                value.get<std::uint64_t>() <= largest,
            "unreasonable key derivation cost");
}

bool isXtsKeySize(const Json& value) {
    const auto size = value.get<std::uint64_t>();
    return size == 32 || size == 64;
}

void checkKeyDerivation(const Json& kdf) {
    const std::string type = kdf.at("type");
    if (type == "pbkdf2") {
        requireCost(kdf.at("iterations"), largestPbkdf2Iterations);
    } else {
        require(type == "argon2i" || type == "argon2id", "unknown key derivation");
        requireCost(kdf.at("time"), largestArgon2Time);
        requireCost(kdf.at("memory"), largestArgon2Kibibytes);
        requireCost(kdf.at("cpus"), largestArgon2Threads);
    }
}

void checkKeyslot(const Json& keyslot, std::uint64_t payloadOffset) {
    require(keyslot.at("type") == "luks2", "unknown kind of keyslot");
    require(isXtsKeySize(keyslot.at("key_size")), "unknown key size");
    const Json& splitter = keyslot.at("af");
    require(splitter.at("type") == "luks1" && splitter.at("stripes") == stripes,
            "unknown key splitting");
    const Json& area = keyslot.at("area");
    require(area.at("type") == "raw" && area.at("encryption") == "aes-xts-plain64" &&
                isXtsKeySize(area.at("key_size")),
            "unknown keyslot encryption");
    const std::uint64_t offset = decimal(area.at("offset"));
    const std::uint64_t size = decimal(area.at("size"));
    require(offset <= payloadOffset && size <= payloadOffset - offset &&
                size >= keyslot.at("key_size").get<std::uint64_t>() * stripes,
            "keyslot out of place");
    checkKeyDerivation(keyslot.at("kdf"));
}

void checkDigests(const Json& digests) {
    bool forPayload = false;
    for (const Json& digest : digests) {
        require(digest.at("type") == "pbkdf2", "unknown digest");
        requireCost(digest.at("iterations"), largestPbkdf2Iterations);
        const Json& segments = digest.at("segments");
        forPayload = forPayload || std::ranges::find(segments, Json("0")) != segments.end();
    }
    require(forPayload, "no digest of the key");
}

EncryptedImage::Geometry checkSegment(const Json& segment, std::uint64_t fileSize) {
    require(segment.at("type") == "crypt" && segment.at("encryption") == "aes-xts-plain64",
            "unknown encryption");
    require(decimal(segment.at("iv_tweak")) == 0, "unknown initial vector");
    require(!segment.contains("integrity"), "integrity protection");
    require(segment.at("sector_size") == 512 || segment.at("sector_size") == 4096,
            "unknown sector size");
    if (segment.contains("flags")) require(segment.at("flags").empty(), "unknown payload flags");

    EncryptedImage::Geometry result;
    result.sectorSize = segment.at("sector_size");
    result.payloadOffset = decimal(segment.at("offset"));
    require(result.payloadOffset != 0 && result.payloadOffset % EncryptedImage::blockSize == 0,
            "payload does not begin on a 4096-byte boundary");
    if (result.payloadOffset >= fileSize ||
        fileSize - result.payloadOffset < EncryptedImage::blockSize)
        throw ImageDamaged("the file ends before its contents begin");
    result.payloadSize = fileSize - result.payloadOffset;
    result.toEndOfFile = segment.at("size") == "dynamic";
    if (!result.toEndOfFile) {
        const std::uint64_t size = decimal(segment.at("size"));
        if (size > result.payloadSize) throw ImageDamaged("the file is shorter than its contents");
        result.payloadSize = size;
    }
    result.payloadSize -= result.payloadSize % EncryptedImage::blockSize;
    require(result.payloadSize != 0, "empty payload");
    return result;
}

EncryptedImage::Geometry check(const Json& header, std::uint64_t fileSize) {
    const Json& config = header.at("config");
    if (config.contains("requirements")) {
        for (const Json& kind : config.at("requirements"))
            require(kind.empty(), "requirements that this program does not know");
    }
    const Json& segments = header.at("segments");
    require(segments.size() == 1 && segments.contains("0"), "more than one payload");
    const EncryptedImage::Geometry geometry = checkSegment(segments.at("0"), fileSize);
    require(!header.at("keyslots").empty(), "no keyslot");
    for (const Json& keyslot : header.at("keyslots")) checkKeyslot(keyslot, geometry.payloadOffset);
    checkDigests(header.at("digests"));
    return geometry;
}

} // namespace

EncryptedImage::Geometry checkLuksHeader(std::string_view json, std::uint64_t fileSize) {
    // Files are addressed by signed 64-bit numbers; nothing below can then wrap.
    require(fileSize <= std::numeric_limits<std::int64_t>::max(), "too long");
    try {
        return check(Json::parse(json), fileSize);
    } catch (const Json::exception&) {
        throw ImageNotSupported("incomplete header");
    }
}
