#include "Fatal.h"

#include <cstdio>
#include <cstdlib>

namespace {
// What a shell shows for a program that called abort(). That call itself could leave a core file
// with keys in it.
constexpr int abortStatus = 134;
} // namespace

void stopProgram(const char* message) noexcept {
    // Nobody is left to tell when even this fails.
    static_cast<void>(std::fprintf(stderr, "quillvane: %s\n", message));
    std::_Exit(abortStatus);
}

std::int64_t addOrStop(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) stopProgram("a byte count is out of range");
    return sum;
}
