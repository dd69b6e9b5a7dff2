#include "Base32.h"

#include <unicode/ustring.h>

#include <array>
#include <new>
#include <string_view>

namespace Base32 {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr int noValue = -1;

/// The value of each ASCII character, built once.
const std::array<int, 128>& lookup() {
    static const std::array<int, 128> table = [] {
        std::array<int, 128> values{};
        values.fill(noValue);
        for (std::size_t value = 0; value < alphabet.size(); ++value)
            values[static_cast<unsigned char>(alphabet[value])] = static_cast<int>(value);
        return values;
    }();
    return table;
}

int valueOf(unsigned int character) {
    return character < lookup().size() ? lookup()[character] : noValue;
}

Secret firstBytes(const Secret& bytes, std::size_t count) {
    return Secret(bytes.bytes().first(count));
}

/// UTF-16 text in memory that is wiped.
class WideText {
public:
    explicit WideText(std::size_t capacity) : memory_(capacity * sizeof(UChar)) {}
    UChar* data() noexcept { return reinterpret_cast<UChar*>(memory_.writable().data()); }
    std::int32_t capacity() const noexcept {
        return static_cast<std::int32_t>(memory_.size() / sizeof(UChar));
    }

private:
    Secret memory_;
};

} // namespace

Secret encode(std::span<const std::uint8_t> data) {
    Secret text((data.size() * 8 + 4) / 5);
    const auto out = text.writable();
    std::size_t length = 0;
    unsigned int pending = 0;
    int bits = 0;
    for (const std::uint8_t byte : data) {
        pending = (pending << 8 | byte) & 0xFFF; // never more than 4 + 8 bits count
        for (bits += 8; bits >= 5; bits -= 5)
            out[length++] = static_cast<std::uint8_t>(alphabet[pending >> (bits - 5) & 31]);
    }
    if (bits > 0) out[length] = static_cast<std::uint8_t>(alphabet[pending << (5 - bits) & 31]);
    return text;
}

Secret encodeGrouped(std::span<const std::uint8_t> data, std::size_t group) {
    const Secret ungrouped = encode(data);
    Secret text;
    for (std::size_t start = 0; start < ungrouped.size(); start += group) {
        if (start > 0) text.append("-");
        text.append(ungrouped.text().substr(start, group));
    }
    return text;
}

Secret normalize(const Secret& text) {
    // One UTF-8 byte gives at most one UTF-16 unit; upper-casing at most triples ("ΐ").
    constexpr std::size_t longestKey = 1 << 20;
    if (text.empty() || text.size() > longestKey) return {};
    WideText typed(text.size());
    WideText upper(text.size() * 3);
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t length = 0;
    constexpr UChar32 replacement = 0xFFFD;
    u_strFromUTF8WithSub(typed.data(), typed.capacity(), &length, text.text().data(),
                         static_cast<std::int32_t>(text.size()), replacement, nullptr, &status);
    length = u_strToUpper(upper.data(), upper.capacity(), typed.data(), length, "", &status);
    if (U_FAILURE(status)) throw std::bad_alloc(); // the only failure with room enough

    Secret kept(static_cast<std::size_t>(length));
    std::size_t count = 0;
    for (std::int32_t i = 0; i < length; ++i) {
        const UChar character = upper.data()[i];
        if (valueOf(character) != noValue)
            kept.writable()[count++] = static_cast<std::uint8_t>(character);
    }
    return firstBytes(kept, count);
}

std::optional<Secret> decode(const Secret& text) {
    Secret data(text.size() * 5 / 8);
    std::size_t length = 0;
    unsigned int pending = 0;
    int bits = 0;
    for (const std::uint8_t character : text.bytes()) {
        const int value = valueOf(character);
        if (value == noValue) return std::nullopt;
        pending = (pending << 5 | static_cast<unsigned int>(value)) & 0xFFF;
        bits += 5;
        if (bits >= 8) {
            bits -= 8;
            data.writable()[length++] = static_cast<std::uint8_t>(pending >> bits & 0xFF);
        }
    }
    return data;
}

} // namespace Base32
