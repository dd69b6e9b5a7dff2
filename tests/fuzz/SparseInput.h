#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// A disk image as the fuzz targets get it: a few bytes instead of many zeros.
///
/// An input is a header of 4 bytes (flags, a byte that means nothing, and the length of the image
/// in units of 4096 bytes, little-endian), and any number of patches: 6 bytes (which unit, where in
/// it, how many bytes, each 2 bytes little-endian) and the bytes. What does not fit is cut off, so
/// everything is an input.
struct SparseInput {
    static constexpr std::size_t unit = 4096;
    static constexpr std::size_t mostUnits = 4096;
    /// The target is to make all checksums right, so that what lies behind them is reached.
    static constexpr std::uint8_t fixChecksums = 1;

    std::uint8_t flags = 0;
    std::vector<std::byte> image; ///< whole units

    static SparseInput decode(std::span<const std::uint8_t> input);
    std::vector<std::uint8_t> encode();
    /// The unit's bytes; empty when all of them are zero.
    std::span<std::byte> usedUnit(std::size_t number);
};
