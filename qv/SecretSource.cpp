#include "qv/SecretSource.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace {

constexpr std::size_t firstCapacity = 256;
/// Nobody's password is longer; standard input may be anything.
constexpr std::size_t longestLine = 1U << 20U;

void grow(Secret& buffer) {
    Secret larger(buffer.size() * 2);
    std::ranges::copy(buffer.bytes(), larger.writable().begin());
    buffer = std::move(larger);
}

} // namespace

std::optional<Secret> readSecretLine(int fd, const std::function<void()>& awaitInput) {
    Secret buffer(firstCapacity);
    std::size_t length = 0;
    while (true) {
        awaitInput();
        if (length == buffer.size()) grow(buffer);
        const ssize_t count = read(fd, &buffer.writable()[length], 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count < 0) throw std::system_error(errno, std::generic_category());
        if (count == 0 && length == 0) return std::nullopt;
        if (count == 0 || buffer.bytes()[length] == '\n') break;
        if (++length > longestLine)
            throw std::runtime_error("The line with the secret is too long.");
    }
    return Secret(buffer.bytes().first(length));
}
