// A fuzz target: a file that may be anything is unlocked as if it were an image. It must end in an
// error or in a key, in bounded time, and leave the process whole.

#include "LuksChecksums.h"
#include "Quillvane/FileDescriptor.h"
#include "Quillvane/Secret.h"
#include "SparseInput.h"
#include "linux/hdiutil/LuksContainer.h"
#include "linux/hdiutil/LuksHeader.h"
#include "linux/hdiutil/ToolError.h"

#include <cctype>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace {

/// Costs that are allowed take minutes, and the same child is killed at the end of them; here only
/// those are tried that take milliseconds.
constexpr unsigned long costliest = 50'000;

std::string_view metadataOf(const std::vector<std::byte>& image) {
    constexpr std::size_t binaryHeader = 4096;
    if (image.size() <= binaryHeader) return {};
    const std::string_view text(reinterpret_cast<const char*>(image.data()) + binaryHeader,
                                image.size() - binaryHeader);
    return text.substr(0, text.find('\0'));
}

/// Whether there is a number that might be a high cost, anywhere. Offsets and sizes are in quotes.
bool maybeCostly(const std::vector<std::byte>& image) {
    const std::string_view text(reinterpret_cast<const char*>(image.data()), image.size());
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (!isDigit(text[at])) continue;
        std::size_t end = at;
        while (end < text.size() && isDigit(text[end])) ++end;
        const bool quoted = at > 0 && text[at - 1] == '"';
        const bool fraction =
            end < text.size() && std::string_view("eE.").find(text[end]) != std::string_view::npos;
        const bool large =
            end - at > 9 || std::stoul(std::string(text.substr(at, end - at))) > costliest;
        if (!quoted && (large || (fraction && at > 0 && text[at - 1] == ':'))) return true;
        at = end;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    SparseInput input = SparseInput::decode({data, size});
    if ((input.flags & SparseInput::fixChecksums) != 0) fixLuksChecksums(input.image);
    try {
        checkLuksHeader(metadataOf(input.image), input.image.size());
    } catch (const ImageError&) {
        // What is expected of most inputs.
    }
    if (maybeCostly(input.image)) return 0;
    const FileDescriptor file(::memfd_create("image", MFD_CLOEXEC));
    if (!file || ::write(file.get(), input.image.data(), input.image.size()) !=
                     static_cast<ssize_t>(input.image.size()))
        std::abort();
    try {
        LuksContainer::unlock(file.get(), Secret(std::string_view("passphrase")));
    } catch (const ToolError&) {
        // Also when the library crashed: that happens in a process of its own.
    }
    return 0;
}
