#pragma once

#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Reads a key file from its bytes alone, with none of the program's own code, so that the tests
/// hold the format itself and not just that writer and reader agree.
namespace KeyFileReader {

inline std::vector<std::uint8_t> base64(const std::string& text) {
    std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
    const int length =
        EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<int>(text.size()));
    if (length < 0) return {};
    bytes.resize(static_cast<std::size_t>(length));
    for (auto c = text.rbegin(); c != text.rend() && *c == '='; ++c) bytes.pop_back();
    return bytes;
}

struct Fields {
    int version = 0;
    std::string kdf;
    int iterations = 0;
    std::vector<std::uint8_t> salt;
    std::vector<std::uint8_t> wrapped;
};

/// Takes `before`, then everything up to `after`, off the front of `text`.
inline std::optional<std::string> take(std::string_view& text, std::string_view before,
                                       std::string_view after) {
    if (!text.starts_with(before)) return std::nullopt;
    text.remove_prefix(before.size());
    const std::size_t end = text.find(after);
    if (end == std::string_view::npos) return std::nullopt;
    std::string value(text.substr(0, end));
    text.remove_prefix(end);
    return value;
}

/// Nothing unless the text is one line of exactly the published form.
inline std::optional<Fields> parse(std::string_view text) {
    const auto version = take(text, "{\"version\":", ",");
    const auto kdf = take(text, ",\"kdf\":\"", "\"");
    const auto iterations = take(text, "\",\"iterations\":", ",");
    const auto salt = take(text, ",\"salt\":\"", "\"");
    const auto wrapped = take(text, "\",\"wrapped\":\"", "\"");
    if (!version || !kdf || !iterations || !salt || !wrapped || text != "\"}") return std::nullopt;
    if (salt->size() != 24 || wrapped->size() != 64) return std::nullopt;
    return Fields{std::stoi(*version), *kdf, std::stoi(*iterations), base64(*salt),
                  base64(*wrapped)};
}

/// The vault key as text of raw bytes; nothing when the password is wrong.
inline std::optional<std::string> vaultKey(const std::string& text, const std::string& password) {
    const auto fields = parse(text);
    if (!fields || fields->wrapped.size() != 48 || fields->salt.size() != 16) return std::nullopt;
    std::uint8_t key[32];
    PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), fields->salt.data(), 16,
                      fields->iterations, EVP_sha256(), sizeof key, key);
    std::uint8_t plain[20];
    std::uint8_t tag[16];
    std::copy(fields->wrapped.end() - 16, fields->wrapped.end(), tag);
    int length = 0;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_DecryptInit_ex(context, EVP_aes_256_gcm(), nullptr, key, fields->wrapped.data());
    EVP_DecryptUpdate(context, plain, &length, fields->wrapped.data() + 12, 20);
    EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_TAG, 16, tag);
    const bool authentic = EVP_DecryptFinal_ex(context, plain + length, &length) == 1;
    EVP_CIPHER_CTX_free(context);
    if (!authentic) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(plain), sizeof plain);
}

} // namespace KeyFileReader
