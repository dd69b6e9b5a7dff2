#pragma once

#include <cstdint>
#include <string>

/// Byte counts for people.
namespace ByteCount {

/// In decimal units with at most one decimal: "1.5 GB", "200 MB", "999 bytes", "Zero KB".
std::string text(std::int64_t bytes);

} // namespace ByteCount
