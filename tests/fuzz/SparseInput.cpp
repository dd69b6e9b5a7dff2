#include "SparseInput.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr std::size_t headerSize = 4;
constexpr std::size_t patchSize = 6;
/// Zeros between two patches that cost more than one longer patch.
constexpr std::size_t worthAPatch = patchSize + 2;

std::size_t number(std::span<const std::uint8_t> input, std::size_t at) {
    return static_cast<std::size_t>(input[at] | input[at + 1] << 8);
}

void append(std::vector<std::uint8_t>& output, std::size_t number) {
    output.push_back(static_cast<std::uint8_t>(number));
    output.push_back(static_cast<std::uint8_t>(number >> 8));
}

/// The end of the stretch of data that begins at `from`, before zeros that are worth a new patch.
std::size_t endOfData(std::span<const std::byte> data, std::size_t from) {
    std::size_t end = from;
    for (std::size_t at = from; at < data.size() && at - end < worthAPatch; ++at)
        if (data[at] != std::byte{0}) end = at + 1;
    return end;
}

} // namespace

SparseInput SparseInput::decode(std::span<const std::uint8_t> input) {
    SparseInput result;
    if (input.size() < headerSize) return result;
    result.flags = input[0];
    result.image.resize(std::min(number(input, 2), mostUnits) * unit);
    for (std::size_t at = headerSize; at + patchSize <= input.size();) {
        const std::size_t place = number(input, at) * unit + number(input, at + 2) % unit;
        const std::size_t size = std::min(number(input, at + 4), input.size() - at - patchSize);
        at += patchSize;
        if (place < result.image.size())
            std::memcpy(result.image.data() + place, input.data() + at,
                        std::min(size, result.image.size() - place));
        at += size;
    }
    return result;
}

std::vector<std::uint8_t> SparseInput::encode() {
    std::vector<std::uint8_t> output{flags, 0};
    append(output, image.size() / unit);
    for (std::size_t block = 0; block * unit < image.size(); ++block) {
        const std::span<const std::byte> data = usedUnit(block);
        for (std::size_t at = 0; at < data.size(); ++at) {
            if (data[at] == std::byte{0}) continue;
            const std::size_t end = endOfData(data, at);
            append(output, block);
            append(output, at);
            append(output, end - at);
            const auto* bytes = reinterpret_cast<const std::uint8_t*>(data.data());
            output.insert(output.end(), bytes + at, bytes + end);
            at = end;
        }
    }
    return output;
}

std::span<std::byte> SparseInput::usedUnit(std::size_t number) {
    static constexpr std::array<std::byte, unit> zeros{};
    const auto bytes = std::span(image).subspan(number * unit, unit);
    return std::memcmp(bytes.data(), zeros.data(), unit) == 0 ? std::span<std::byte>{} : bytes;
}
