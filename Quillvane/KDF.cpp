#include "KDF.h"

#include "Cancellation.h"
#include "Fatal.h"
#include "OperationCancelled.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>

// The library's own PBKDF2 runs from its first iteration to its last and cannot be stopped, so the
// iterations (RFC 8018, section 5.2) are made here; the library does the hashing.

namespace KDF {
namespace {

constexpr std::size_t blockBytes = 32;
constexpr std::uint32_t iterationsPerLook = 4096; // about a millisecond

struct Release {
    void operator()(EVP_MAC* mac) const noexcept { EVP_MAC_free(mac); }
    void operator()(EVP_MAC_CTX* context) const noexcept { EVP_MAC_CTX_free(context); }
};

void require(bool succeeded) {
    if (!succeeded) stopProgram("the key derivation failed");
}

/// HMAC-SHA-256 under one key, over one text after the other.
class KeyedHash {
public:
    explicit KeyedHash(std::span<const std::uint8_t> key) {
        const std::unique_ptr<EVP_MAC, Release> mac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
        require(mac != nullptr);
        context_.reset(EVP_MAC_CTX_new(mac.get()));
        char digest[] = "SHA256";
        const OSSL_PARAM parameters[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
            OSSL_PARAM_construct_end(),
        };
        const std::uint8_t none = 0; // a null pointer would mean "not given"
        require(context_ && EVP_MAC_init(context_.get(), key.empty() ? &none : key.data(),
                                         key.size(), parameters) == 1);
    }

    void add(std::span<const std::uint8_t> text) {
        require(EVP_MAC_update(context_.get(), text.data(), text.size()) == 1);
    }
    /// Gives the hash of what was added, and begins the next text.
    void finish(std::span<std::uint8_t> hash) {
        std::size_t length = 0;
        require(EVP_MAC_final(context_.get(), hash.data(), &length, hash.size()) == 1 &&
                length == hash.size() && EVP_MAC_init(context_.get(), nullptr, 0, nullptr) == 1);
    }

private:
    std::unique_ptr<EVP_MAC_CTX, Release> context_;
};

void stopIfCancelled(const Cancellation* cancellation) {
    if (cancellation != nullptr && cancellation->requested()) throw OperationCancelled();
}

/// The block that begins with the hash of `salt` and the block's number.
Secret deriveBlock(KeyedHash& keyed, std::span<const std::uint8_t> salt, std::uint32_t number,
                   std::uint32_t iterations, const Cancellation* cancellation) {
    std::array<std::uint8_t, 4> numberBytes{};
    for (std::size_t i = 0; i < numberBytes.size(); ++i)
        numberBytes[i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
    Secret hash(blockBytes);
    const std::span<std::uint8_t> last = hash.writable();
    keyed.add(salt);
    keyed.add(numberBytes);
    keyed.finish(last);
    Secret result = hash;
    const std::span<std::uint8_t> block = result.writable();
    for (std::uint32_t done = 1; done < iterations; ++done) {
        if (done % iterationsPerLook == 0) stopIfCancelled(cancellation);
        keyed.add(last);
        keyed.finish(last);
        for (std::size_t i = 0; i < blockBytes; ++i) block[i] ^= last[i];
    }
    return result;
}

} // namespace

Secret pbkdf2(const Secret& password, std::span<const std::uint8_t> salt, std::int64_t iterations,
              std::size_t length, const Cancellation* cancellation) {
    if (iterations < 0 || iterations > std::numeric_limits<std::uint32_t>::max())
        stopProgram("the key file's iteration count is out of range");
    require(iterations > 0);
    KeyedHash keyed(password.bytes());
    Secret key(length);
    std::span<std::uint8_t> rest = key.writable();
    for (std::uint32_t number = 1; !rest.empty(); ++number) {
        stopIfCancelled(cancellation);
        const Secret block =
            deriveBlock(keyed, salt, number, static_cast<std::uint32_t>(iterations), cancellation);
        const std::size_t used = std::min(rest.size(), block.size());
        std::ranges::copy(block.bytes().first(used), rest.begin());
        rest = rest.subspan(used);
    }
    return key;
}

} // namespace KDF
