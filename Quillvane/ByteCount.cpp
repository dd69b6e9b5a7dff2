#include "ByteCount.h"

#include <array>

namespace ByteCount {
namespace {

struct Unit {
    std::uint64_t bytes;
    const char* name;
};
constexpr std::array units{
    Unit{1000, "KB"},
    Unit{1000'000, "MB"},
    Unit{1000'000'000, "GB"},
    Unit{1000'000'000'000, "TB"},
    Unit{1000'000'000'000'000, "PB"},
    Unit{1000'000'000'000'000'000, "EB"},
};

std::string withUnit(std::uint64_t bytes) {
    std::uint64_t tenths = 0;
    const char* name = "";
    for (const Unit& unit : units) {
        tenths = bytes / unit.bytes * 10 + (bytes % unit.bytes * 10 + unit.bytes / 2) / unit.bytes;
        name = unit.name;
        if (tenths < 10'000) break; // what would round to "1000 KB" is "1 MB"
    }
    std::string text = std::to_string(tenths / 10);
    if (tenths % 10 != 0) text += "." + std::to_string(tenths % 10);
    return text + " " + name;
}

} // namespace

std::string text(std::int64_t bytes) {
    if (bytes == 0) return "Zero KB";
    const std::uint64_t size =
        bytes < 0 ? 0 - static_cast<std::uint64_t>(bytes) : static_cast<std::uint64_t>(bytes);
    const std::string sign = bytes < 0 ? "-" : "";
    if (size == 1) return sign + "1 byte";
    if (size < 1000) return sign + std::to_string(size) + " bytes";
    return sign + withUnit(size);
}

} // namespace ByteCount
