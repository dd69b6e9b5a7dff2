#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// Bytes that must not outlive their use: passwords, keys, passphrases.
///
/// The bytes live in locked memory that is left out of core dumps where the system grants it, and
/// are wiped when the object is destroyed, assigned to or cleared. Copies are independent and
/// wiped on their own. Not safe for concurrent modification.
class Secret {
public:
    Secret() noexcept = default;
    /// `size` zero bytes.
    explicit Secret(std::size_t size);
    explicit Secret(std::string_view text);
    explicit Secret(std::span<const std::uint8_t> bytes);
    Secret(const Secret& other);
    Secret(Secret&& other) noexcept;
    Secret& operator=(const Secret& other);
    Secret& operator=(Secret&& other) noexcept;
    ~Secret();

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::string_view text() const noexcept;
    std::span<const std::uint8_t> bytes() const noexcept { return {data_, size_}; }
    std::span<std::uint8_t> writable() noexcept { return {data_, size_}; }
    /// Adds `text` at the end; the former buffer is wiped.
    void append(std::string_view text);
    void clear() noexcept;

    /// Compares in time that depends on the sizes only.
    friend bool operator==(const Secret& a, const Secret& b) noexcept;

private:
    std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
};
