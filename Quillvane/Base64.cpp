#include "Base64.h"

namespace Base64 {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

Secret encode(std::span<const std::uint8_t> data) {
    Secret text((data.size() + 2) / 3 * 4);
    const auto out = text.writable();
    for (std::size_t i = 0, o = 0; i < data.size(); i += 3, o += 4) {
        const std::size_t left = data.size() - i;
        const unsigned int bits = static_cast<unsigned int>(data[i]) << 16 |
                                  (left > 1 ? static_cast<unsigned int>(data[i + 1]) << 8 : 0U) |
                                  (left > 2 ? static_cast<unsigned int>(data[i + 2]) : 0U);
        for (std::size_t c = 0; c < 4; ++c) {
            const char character = c <= left ? alphabet[bits >> (18 - 6 * c) & 63] : '=';
            out[o + c] = static_cast<std::uint8_t>(character);
        }
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }
    std::vector<std::uint8_t> data;
    data.reserve(text.size() * 3 / 4);
    unsigned int pending = 0;
    int bits = 0;
    for (const char character : text) {
        const std::size_t value = alphabet.find(character);
        if (value == std::string_view::npos) return std::nullopt;
        pending = (pending << 6 | static_cast<unsigned int>(value)) & 0xFFFF;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            data.push_back(static_cast<std::uint8_t>(pending >> bits & 0xFF));
        }
    }
    const bool bitsLeftOver = (pending & ((1U << bits) - 1)) != 0;
    if (bitsLeftOver) return std::nullopt;
    return data;
}

} // namespace Base64
