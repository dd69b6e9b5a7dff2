#pragma once

#include <cstdint>

/// Ends the program at once with `message` on standard error and without a core file: for failures
/// after which nothing it would do could be trusted.
[[noreturn]] void stopProgram(const char* message) noexcept;

/// The sum; ends the program when it does not fit.
std::int64_t addOrStop(std::int64_t a, std::int64_t b) noexcept;
