#include "SealedBox.h"

#include "SecureRandom.h"

#include <openssl/evp.h>

#include <algorithm>
#include <limits>
#include <memory>

namespace SealedBox {
namespace {

constexpr std::size_t keyBytes = 32;
constexpr std::size_t nonceBytes = 12; // GCM's default in OpenSSL
constexpr std::size_t tagBytes = 16;
constexpr std::size_t maximumBytes = std::numeric_limits<int>::max();

struct Release {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, Release>;

} // namespace

std::optional<std::vector<std::uint8_t>> seal(const Secret& key, const Secret& plaintext) {
    if (key.size() != keyBytes || plaintext.size() > maximumBytes) return std::nullopt;
    std::vector<std::uint8_t> combined(nonceBytes + plaintext.size() + tagBytes);
    const Secret nonce = SecureRandom::bytes(nonceBytes);
    std::ranges::copy(nonce.bytes(), combined.begin());
    std::uint8_t* ciphertext = combined.data() + nonceBytes;
    std::uint8_t* tag = ciphertext + plaintext.size();

    const Context context(EVP_CIPHER_CTX_new());
    int written = 0;
    const bool sealed =
        context &&
        EVP_EncryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.bytes().data(), combined.data(),
                            nullptr) == 1 &&
        (plaintext.empty() ||
         EVP_EncryptUpdate(context.get(), ciphertext, &written, plaintext.bytes().data(),
                           static_cast<int>(plaintext.size())) == 1) &&
        EVP_EncryptFinal_ex(context.get(), tag, &written) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, tagBytes, tag) == 1;
    if (!sealed) return std::nullopt;
    return combined;
}

std::optional<Secret> open(const Secret& key, std::span<const std::uint8_t> combined) {
    if (key.size() != keyBytes || combined.size() < nonceBytes + tagBytes ||
        combined.size() > maximumBytes)
        return std::nullopt;
    const auto ciphertext = combined.subspan(nonceBytes, combined.size() - nonceBytes - tagBytes);
    std::uint8_t tag[tagBytes];
    std::ranges::copy(combined.last(tagBytes), tag);

    const Context context(EVP_CIPHER_CTX_new());
    Secret plaintext(ciphertext.size());
    std::uint8_t nothing = 0;
    int written = 0;
    const bool opened =
        context &&
        EVP_DecryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.bytes().data(), combined.data(),
                            nullptr) == 1 &&
        (ciphertext.empty() ||
         EVP_DecryptUpdate(context.get(), plaintext.writable().data(), &written, ciphertext.data(),
                           static_cast<int>(ciphertext.size())) == 1) &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, tagBytes, tag) == 1 &&
        EVP_DecryptFinal_ex(context.get(), &nothing, &written) == 1;
    if (!opened) return std::nullopt;
    return plaintext;
}

} // namespace SealedBox
