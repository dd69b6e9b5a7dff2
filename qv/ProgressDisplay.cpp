#include "qv/ProgressDisplay.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <langinfo.h>
#include <locale.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#if __has_include(<xlocale.h>) // macOS has there what other systems have in <locale.h>
#include <xlocale.h>
#endif

namespace {

constexpr std::size_t widestBar = 24;
constexpr std::size_t narrowestBar = 5;
constexpr std::size_t gap = 2;             // between bar and message
constexpr std::size_t messageColumns = 42; // as wide as the messages get
constexpr const char* eraseLine = "\r\x1b[K";

bool isTerminal() {
    const char* kind = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

/// What the user's locale says; without one, the terminal is taken for a plain one.
bool speaksUtf8() {
    const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (locale == nullptr) return false;
    const bool utf8 = std::string_view(nl_langinfo_l(CODESET, locale)) == "UTF-8";
    freelocale(locale);
    return utf8;
}

std::size_t terminalColumns() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

void write(std::string_view text) {
    // In one piece, so that the terminal never shows half a line.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

bool continuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// The messages are plain sentences: every character is one column wide.
std::string firstColumns(const std::string& text, std::size_t columns) {
    std::size_t end = 0;
    while (end < text.size() && columns > 0) {
        ++end;
        while (end < text.size() && continuesCharacter(text[end])) ++end;
        --columns;
    }
    return text.substr(0, end);
}

void replaceEllipsis(std::string& text) {
    constexpr std::string_view ellipsis = "…";
    for (auto at = text.find(ellipsis); at != std::string::npos; at = text.find(ellipsis)) {
        text.replace(at, ellipsis.size(), "...");
    }
}

std::string bar(double fraction, std::size_t width, bool utf8) {
    const auto full = static_cast<std::size_t>(
        std::lround(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(width)));
    std::string text;
    for (std::size_t at = 0; at < width; ++at) {
        text += at < full ? (utf8 ? "█" : "#") : (utf8 ? "░" : ".");
    }
    return text;
}

} // namespace

ProgressDisplay::ProgressDisplay() : onTerminal_(isTerminal()), utf8_(speaksUtf8()) {}

ProgressDisplay::~ProgressDisplay() {
    if (onTerminal_ && !shown_.empty()) write(eraseLine);
}

void ProgressDisplay::show(const Progress& progress) {
    if (cancellable_ && !progress.cancellable) {
        cancellable_ = false;
        write(std::string(onTerminal_ ? eraseLine : "") + "From here on it can't be cancelled.\n");
        shown_.clear();
    }
    if (onTerminal_) {
        showLine(progress);
    } else {
        showText(progress.message);
    }
}

void ProgressDisplay::showLine(const Progress& progress) {
    if (progress.fraction >= 1.0) { // the last word stays, without a bar
        write(eraseLine + progressLine({{}, progress.message}, terminalColumns(), utf8_) + "\n");
        shown_.clear();
        return;
    }
    std::string line = progressLine(progress, terminalColumns(), utf8_);
    if (line == shown_) return;
    // The rest is erased after the new text, not before it, so that nothing flickers.
    write("\r" + line + "\x1b[K");
    shown_ = std::move(line);
}

void ProgressDisplay::showText(const std::string& message) {
    std::string step = progressStep(message);
    if (step == shown_) return;
    write(message + "\n");
    shown_ = std::move(step);
}

std::string progressLine(const Progress& progress, std::size_t columns, bool utf8) {
    std::string text = progress.message;
    if (!utf8) replaceEllipsis(text);
    // The last column stays free: a character there would begin a new line.
    const std::size_t usable = columns - std::min<std::size_t>(columns, 1);
    if (!progress.fraction || usable < narrowestBar + gap + messageColumns) {
        return firstColumns(text, usable);
    }
    // The bar comes first and its width depends on the terminal alone, so that it does not jump.
    const std::size_t width = std::min(widestBar, usable - gap - messageColumns);
    return bar(*progress.fraction, width, utf8) + std::string(gap, ' ') +
           firstColumns(text, usable - gap - width);
}

std::string progressStep(const std::string& message) {
    const auto isDigit = [](char character) { return character >= '0' && character <= '9'; };
    const std::size_t last = message.size() - 2; // the last digit
    if (message.size() < 2 || message.back() != '%' || !isDigit(message[last])) return message;
    return message.substr(0, last) + "0%";
}
