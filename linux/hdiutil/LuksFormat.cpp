#include "LuksContainer.h"
#include "LuksDevice.h"
#include "ToolError.h"

#include <openssl/rand.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

namespace {

constexpr std::size_t keyBytes = 64; // AES-256 in XTS mode takes two keys
constexpr std::uint64_t libraryUnit = 512;

// The passphrase is the text of 160 random bits, so no work factor can make guessing it harder
// than it is; the library's smallest count keeps opening an item instant.
constexpr std::uint32_t iterations = 1000;

void checkLibrary(int result) {
    if (result < 0) throw ToolError::fromErrno(-result);
}

void quiet(int, const char*, void*) {
    // The library's return values say what the user needs to know.
}

} // namespace

LuksDevice openLuksDevice(int fd) {
    crypt_set_debug_level(CRYPT_DEBUG_NONE);
    crypt_set_log_callback(nullptr, quiet, nullptr);
    crypt_device* device = nullptr;
    // By way of the descriptor: the file that was checked and locked is the one that is opened.
    checkLibrary(crypt_init(&device, ("/proc/self/fd/" + std::to_string(fd)).c_str()));
    crypt_set_log_callback(device, quiet, nullptr);
    return LuksDevice(device);
}

std::uint64_t fileLength(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) throw std::system_error(errno, std::generic_category(), "image");
    return static_cast<std::uint64_t>(status.st_size);
}

LuksContainer::Unlocked LuksContainer::format(int fd, const Secret& passphrase) {
    Unlocked result;
    result.volumeKey = Secret(keyBytes);
    if (RAND_priv_bytes(result.volumeKey.writable().data(), keyBytes) != 1)
        throw ToolError("no random numbers");
    result.geometry = {payloadOffset, fileLength(fd) - payloadOffset, EncryptedImage::blockSize,
                       true};

    const LuksDevice device = openLuksDevice(fd);
    crypt_pbkdf_type derivation{};
    derivation.type = CRYPT_KDF_PBKDF2;
    derivation.hash = "sha256";
    derivation.iterations = iterations;
    derivation.flags = CRYPT_PBKDF_NO_BENCHMARK;
    checkLibrary(crypt_set_pbkdf_type(device.get(), &derivation));
    checkLibrary(crypt_set_metadata_size(device.get(), 16384, 262144));
    checkLibrary(crypt_set_data_offset(device.get(), payloadOffset / libraryUnit));
    crypt_params_luks2 parameters{};
    parameters.sector_size = EncryptedImage::blockSize;
    const char* const key = result.volumeKey.text().data();
    checkLibrary(crypt_format(device.get(), CRYPT_LUKS2, "aes", "xts-plain64", nullptr, key,
                              keyBytes, &parameters));
    checkLibrary(crypt_keyslot_set_encryption(device.get(), "aes-xts-plain64", keyBytes));
    checkLibrary(crypt_keyslot_add_by_volume_key(device.get(), CRYPT_ANY_SLOT, key, keyBytes,
                                                 passphrase.text().data(), passphrase.size()));
    return result;
}
