#include "PrintableText.h"

#include <array>
#include <cstdint>

namespace {

/// One character at the start of `text`; length 0 when the bytes are no UTF-8.
struct Character {
    std::uint32_t code;
    std::size_t length;
};

Character firstCharacter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return {lead, 1};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return {0, 0};
    std::uint32_t code = lead & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xc0) != 0x80) return {0, 0};
        code = code << 6 | (next & 0x3fU);
    }
    constexpr std::array<std::uint32_t, 5> smallest{0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xd800 && code < 0xe000;
    if (code < smallest.at(length) || code > 0x10ffff || surrogate) return {0, 0};
    return {code, length};
}

/// Characters that could move the cursor, colour the terminal or reverse the text after them.
bool isUnprintable(std::uint32_t code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || (code >= 0x200e && code <= 0x200f) ||
           (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

void appendByte(std::string& out, char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    out += "\\x";
    out += digits[value >> 4];
    out += digits[value & 15];
}

std::string escaped(std::string_view text, std::string_view lineFeed, std::string_view backslash) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        const std::size_t length = character.length == 0 ? 1 : character.length;
        if (text[0] == '\n') {
            out += lineFeed;
        } else if (text[0] == '\\') {
            out += backslash;
        } else if (character.length == 0 || isUnprintable(character.code)) {
            for (const char byte : text.substr(0, length)) appendByte(out, byte);
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return out;
}

} // namespace

std::string printable(std::string_view name) {
    return escaped(name, "\\n", "\\\\");
}

std::string printableLines(std::string_view text) {
    return escaped(text, "\n", "\\");
}
