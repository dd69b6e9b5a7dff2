#include "ProcessResult.h"

#include <unicode/unistr.h>

namespace {

std::string wellFormed(const std::string& bytes) {
    std::string text;
    icu::UnicodeString::fromUTF8(bytes).toUTF8String(text);
    return text;
}

} // namespace

std::string ProcessResult::stdoutString() const {
    return wellFormed(standardOutput);
}

std::string ProcessResult::stderrString() const {
    return wellFormed(standardError);
}
