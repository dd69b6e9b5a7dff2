#include "qv/ResultOutput.h"

#include "Quillvane/PrintableText.h"

#include <cerrno>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace {

void writeAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) { // somebody made it non-blocking
            pollfd output{STDOUT_FILENO, POLLOUT, 0};
            poll(&output, 1, -1);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category());
        }
    }
}

} // namespace

void printResult(std::initializer_list<std::string_view> lines) {
    for (const std::string_view line : lines) {
        writeAll(line);
        writeAll("\n");
    }
}

std::string shellWord(std::string_view text) {
    if (text.find_first_of("\"$`\\!") == std::string_view::npos)
        return "\"" + std::string(text) + "\"";
    std::string word = "'";
    for (const char c : text) word += c == '\'' ? "'\\''" : std::string(1, c);
    return word + "'";
}

bool canPrint(int stream) {
    pollfd output{stream, POLLOUT, 0};
    return poll(&output, 1, 0) == 1;
}

void printMessage(const std::string& text) {
    if (!canPrint(STDERR_FILENO)) return; // nobody reads; there is more important work to do
    const std::string line = printableLines(text) + "\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}
