#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The record of a key file: an item's vault key, sealed under a key derived from the password.
struct KeyMetadata {
    static constexpr std::int64_t currentVersion = 1;
    static constexpr std::int64_t currentIterations = 210000;
    static constexpr const char* currentKdf = "pbkdf2-sha256";

    std::int64_t version = currentVersion;
    std::string kdf = currentKdf;
    std::int64_t iterations = currentIterations;
    std::string salt;    ///< Base64
    std::string wrapped; ///< Base64 of a `SealedBox`

    /// One line of JSON, members in the order above.
    std::string encode() const;
    /// Nothing unless `json` is an object that has all five members with their types. Other
    /// members are ignored; `version` and `kdf` are not judged.
    static std::optional<KeyMetadata> decode(std::string_view json);
};
