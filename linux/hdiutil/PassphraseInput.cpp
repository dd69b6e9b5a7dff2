#include "PassphraseInput.h"

#include "ToolError.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace {

constexpr std::size_t longest = 8192;

} // namespace

// Read without the standard library's streams: their buffers would keep a copy.
Secret readPassphrase(int fd) {
    Secret buffer(longest + 1);
    const auto bytes = buffer.writable();
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::read(fd, bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw std::system_error(errno, std::generic_category(), "standard input");
        if (got == 0) break;
        const auto fresh = bytes.subspan(filled, static_cast<std::size_t>(got));
        const auto lineFeed = std::ranges::find(fresh, '\n');
        if (lineFeed != fresh.end()) {
            const auto length = filled + static_cast<std::size_t>(lineFeed - fresh.begin());
            return Secret(buffer.bytes().first(length));
        }
        filled += fresh.size();
    }
    if (filled > longest) throw ToolError("the line on standard input is too long");
    return Secret(buffer.bytes().first(filled));
}
