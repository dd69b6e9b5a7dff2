#pragma once

#include <cstdint>
#include <random>
#include <span>
#include <vector>

/// Makes inputs out of seeds, always the same from the same number: changes bits, bytes, numbers
/// and stretches of the image where it is not zero, and mostly asks for right checksums.
class Mutator {
public:
    explicit Mutator(std::uint64_t number) : random_(number) {}
    std::vector<std::uint8_t> mutate(std::span<const std::uint8_t> seed);

private:
    using Unit = std::span<std::byte>;

    std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }
    std::size_t interestingPlace(Unit unit);
    void changeOnce(Unit unit, Unit other);
    void putNumber(Unit unit, std::size_t at);
    void putDigits(Unit unit, std::size_t at);
    void shift(Unit unit, std::size_t at);

    std::mt19937_64 random_;
};
