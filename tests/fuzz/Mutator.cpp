#include "Mutator.h"

#include "SparseInput.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr std::array<std::uint64_t, 16> numbers{
    0,      1,          2,          0x7f,   0xff,       0x7fff,     0x8000,
    0xffff, 0x7fffffff, 0x80000000, 0x1000, 0xffffffff, 0xfffffffe, 0xffffffffffffffff,
    11,     0xf30a};

bool isDigit(std::byte byte) {
    return byte >= std::byte{'0'} && byte <= std::byte{'9'};
}

} // namespace

std::vector<std::uint8_t> Mutator::mutate(std::span<const std::uint8_t> seed) {
    SparseInput input = SparseInput::decode(seed);
    input.flags = below(4) == 0 ? 0 : SparseInput::fixChecksums;
    std::vector<Unit> used;
    for (std::size_t i = 0; i * SparseInput::unit < input.image.size(); ++i)
        if (const Unit unit = input.usedUnit(i); !unit.empty()) used.push_back(unit);
    if (used.empty()) return input.encode();
    const std::size_t changes = 1 + below(below(3) == 0 ? 12 : 3);
    // The first units steer everything else.
    for (std::size_t i = 0; i < changes; ++i) {
        const Unit unit = below(3) == 0 ? used[below(std::min<std::size_t>(2, used.size()))]
                                        : used[below(used.size())];
        changeOnce(unit, used[below(used.size())]);
    }
    if (below(50) == 0) input.image.resize(below(input.image.size() / 4096 + 1) * 4096);
    return input.encode();
}

/// Mostly where something stands.
std::size_t Mutator::interestingPlace(Unit unit) {
    std::size_t at = below(unit.size());
    for (std::size_t tries = 0; tries < 64 && unit[at] == std::byte{0}; ++tries)
        at = below(unit.size());
    return at;
}

void Mutator::changeOnce(Unit unit, Unit other) {
    const std::size_t at = interestingPlace(unit);
    const std::size_t size = std::min<std::size_t>(1 + below(64), unit.size() - at);
    switch (below(10)) {
    case 0:
    case 1:
        unit[at] ^= static_cast<std::byte>(1U << below(8));
        break;
    case 2:
        unit[at] = static_cast<std::byte>(random_());
        break;
    case 3:
    case 4:
    case 5:
        putNumber(unit, at);
        break;
    case 6:
        putDigits(unit, at);
        break;
    case 7:
        std::memmove(unit.data() + at, other.data() + below(other.size() - size), size);
        break;
    case 8:
        std::fill_n(unit.begin() + static_cast<std::ptrdiff_t>(at), size, std::byte{0});
        break;
    default:
        shift(unit, at);
    }
}

/// A number at a place where one would lie: what is on the edge of something, a small one, or what
/// stands there and a little more or less.
void Mutator::putNumber(Unit unit, std::size_t at) {
    const std::size_t size = std::size_t{1} << below(4);
    at &= ~(size - 1);
    if (at + size > unit.size()) return;
    std::uint64_t number = 0;
    std::memcpy(&number, unit.data() + at, size);
    switch (below(3)) {
    case 0:
        number = numbers[below(numbers.size())];
        break;
    case 1:
        number = below(2000);
        break;
    default:
        number += below(33) - 16;
    }
    std::memcpy(unit.data() + at, &number, size);
}

/// Another number written in digits, if there is one.
void Mutator::putDigits(Unit unit, std::size_t at) {
    const auto from =
        std::find_if(unit.begin() + static_cast<std::ptrdiff_t>(at), unit.end(), isDigit);
    for (auto digit = from; digit != unit.end() && isDigit(*digit); ++digit)
        if (below(2) == 0) *digit = static_cast<std::byte>('0' + below(10));
}

/// Moves the rest of the unit by a few bytes.
void Mutator::shift(Unit unit, std::size_t at) {
    const std::size_t by = std::min<std::size_t>(1 + below(16), unit.size() - at);
    const std::size_t rest = unit.size() - at - by;
    if (below(2) == 0)
        std::memmove(unit.data() + at + by, unit.data() + at, rest);
    else
        std::memmove(unit.data() + at, unit.data() + at + by, rest);
}
