#include "Secret.h"

#include <openssl/crypto.h>

#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace {

// Room for every key and password held at one time; whatever does not fit is kept in ordinary
// memory and wiped all the same.
constexpr std::size_t arenaBytes = 256 * 1024;
constexpr std::size_t arenaMinimumBytes = 16;

std::uint8_t* allocate(std::size_t size) {
    if (size == 0) return nullptr;
    static std::once_flag once;
    std::call_once(once, [] {
        if (CRYPTO_secure_malloc_initialized() == 0)
            CRYPTO_secure_malloc_init(arenaBytes, arenaMinimumBytes);
    });
    void* memory = CRYPTO_secure_malloc_initialized() != 0 ? OPENSSL_secure_zalloc(size) : nullptr;
    if (memory == nullptr) memory = OPENSSL_zalloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return static_cast<std::uint8_t*>(memory);
}

void release(std::uint8_t* data, std::size_t size) noexcept {
    // Wipes, and tells locked memory from ordinary memory by itself.
    OPENSSL_secure_clear_free(data, size);
}

} // namespace

Secret::Secret(std::size_t size) : data_(allocate(size)), size_(size) {}

Secret::Secret(std::string_view text) : Secret(text.size()) {
    if (!text.empty()) std::memcpy(data_, text.data(), text.size());
}

Secret::Secret(std::span<const std::uint8_t> bytes) : Secret(bytes.size()) {
    if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

Secret::Secret(const Secret& other) : Secret(other.bytes()) {}

Secret::Secret(Secret&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

Secret& Secret::operator=(const Secret& other) {
    if (this != &other) *this = Secret(other);
    return *this;
}

Secret& Secret::operator=(Secret&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    if (this != &other) other.clear();
    return *this;
}

Secret::~Secret() {
    clear();
}

std::string_view Secret::text() const noexcept {
    return {reinterpret_cast<const char*>(data_), size_};
}

void Secret::append(std::string_view text) {
    Secret longer(size_ + text.size());
    if (size_ != 0) std::memcpy(longer.data_, data_, size_);
    if (!text.empty()) std::memcpy(longer.data_ + size_, text.data(), text.size());
    *this = std::move(longer);
}

void Secret::clear() noexcept {
    if (data_ != nullptr) release(data_, size_);
    data_ = nullptr;
    size_ = 0;
}

bool operator==(const Secret& a, const Secret& b) noexcept {
    return a.size_ == b.size_ && (a.size_ == 0 || CRYPTO_memcmp(a.data_, b.data_, a.size_) == 0);
}
