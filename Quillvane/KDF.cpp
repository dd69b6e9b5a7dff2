#include "KDF.h"

#include "Fatal.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <limits>
#include <memory>

namespace KDF {
namespace {

struct Release {
    void operator()(EVP_KDF* kdf) const noexcept { EVP_KDF_free(kdf); }
    void operator()(EVP_KDF_CTX* context) const noexcept { EVP_KDF_CTX_free(context); }
};

// OpenSSL takes the inputs as pointers to non-const but only reads them; a null pointer would mean
// "not given".
OSSL_PARAM octets(const char* key, std::span<const std::uint8_t> bytes) {
    static std::uint8_t none = 0;
    void* data = bytes.empty() ? &none : const_cast<std::uint8_t*>(bytes.data());
    return OSSL_PARAM_construct_octet_string(key, data, bytes.size());
}

} // namespace

Secret pbkdf2(const Secret& password, std::span<const std::uint8_t> salt, std::int64_t iterations,
              std::size_t length) {
    if (iterations < 0 || iterations > std::numeric_limits<std::uint32_t>::max())
        stopProgram("the key file's iteration count is out of range");
    auto count = static_cast<std::uint64_t>(iterations);
    int anyParameters = 1; // the bounds of SP 800-132 are not the record's to meet
    char digest[] = "SHA256";
    const OSSL_PARAM parameters[] = {
        octets(OSSL_KDF_PARAM_PASSWORD, password.bytes()),
        octets(OSSL_KDF_PARAM_SALT, salt),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &count),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &anyParameters),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_end(),
    };
    const std::unique_ptr<EVP_KDF, Release> kdf(EVP_KDF_fetch(nullptr, "PBKDF2", nullptr));
    const std::unique_ptr<EVP_KDF_CTX, Release> context(EVP_KDF_CTX_new(kdf.get()));
    Secret key(length);
    if (!context ||
        EVP_KDF_derive(context.get(), key.writable().data(), key.size(), parameters) != 1)
        stopProgram("the key derivation failed");
    return key;
}

} // namespace KDF
