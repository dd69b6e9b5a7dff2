#include "VaultEngine.h"

#include "AttachOutput.h"
#include "OperationCancelled.h"
#include "Platform.h"
#include "VaultError.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <initializer_list>
#include <vector>

// The disk-image tool: attach, detach, and what its messages mean.

namespace VaultEngine {
namespace {

bool isWhiteSpace(UChar32 character) {
    constexpr UChar32 nextLine = 0x85;
    const bool lineBreakOrTab = (character >= '\t' && character <= '\r') || character == nextLine;
    return lineBreakOrTab || (character >= 0 && (U_GET_GC_MASK(character) & U_GC_Z_MASK) != 0);
}

/// Whether one of the words, given in small letters, is in the message in any letters.
bool mentions(std::string_view message, std::initializer_list<std::string_view> words) {
    std::string lower(message);
    std::ranges::transform(lower, lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return std::ranges::any_of(
        words, [&](std::string_view word) { return lower.find(word) != std::string::npos; });
}

enum class Ejection { plain, forced };

Ejection eject(const MountInfo& mountInfo) {
    const std::string target = mountInfo.diskDevEntry.value_or(mountInfo.mountPoint);
    const Path& tool = Platform::tools().hdiutil;
    if (ProcessRunner::run(tool, {"detach", target}).exitCode == 0) return Ejection::plain;
    const ProcessResult forced = ProcessRunner::run(tool, {"detach", "-force", target});
    if (forced.exitCode != 0) throw VaultError::detachFailed(trimmed(forced.stderrString()));
    return Ejection::forced;
}

} // namespace

MountInfo attach(const Path& imageURL, const Secret& passwordData, bool browsable,
                 Cancellation* cancellation) {
    std::vector<std::string> arguments{"attach", "-stdinpass", "-plist", "-owners", "on"};
    if (!browsable) arguments.emplace_back("-nobrowse");
    arguments.push_back(imageURL.string());
    const ProcessResult result = ProcessRunner::run(Platform::tools().hdiutil, arguments,
                                                    passwordData.bytes(), cancellation);
    if (result.exitCode != 0) {
        if (cancellation != nullptr && cancellation->requested()) throw OperationCancelled();
        if (refusesPassphrase(result.standardError)) throw VaultError::wrongPassword();
        throw VaultError::attachFailed(trimmed(result.stderrString()));
    }
    return AttachOutput::parse(result.standardOutput);
}

bool detach(const MountInfo& mountInfo) {
    eject(mountInfo);
    return true;
}

void closeFilled(const Path& imageURL, const Secret& passwordData, const MountInfo& mountInfo) {
    if (eject(mountInfo) == Ejection::plain) return;
    if (eject(attach(imageURL, passwordData, /*browsable=*/false)) == Ejection::forced)
        throw VaultError::detachFailed("The volume couldn't be closed properly.");
}

bool isMounted(const std::string& mountPoint) {
    return Platform::isMounted(mountPoint);
}

bool isListedAsMounted(const std::string& mountPoint) {
    return Platform::isListedAsMounted(mountPoint);
}

std::string trimmed(std::string_view text) {
    const char* bytes = text.data();
    auto end = static_cast<std::int32_t>(text.size());
    std::int32_t start = 0;
    UChar32 character = 0;
    for (std::int32_t next = start; next < end; start = next) {
        U8_NEXT(bytes, next, end, character);
        if (!isWhiteSpace(character)) break;
    }
    for (std::int32_t previous = end; previous > start; end = previous) {
        U8_PREV(bytes, start, previous, character);
        if (!isWhiteSpace(character)) break;
    }
    if (start == end) return "(nessun dettaglio dal sistema)";
    return std::string(text.substr(start, end - start));
}

bool refusesPassphrase(std::string_view message) {
    // A damaged image is reported like a wrong password on purpose.
    return mentions(message, {"authentication", "passphrase", "corrupt"});
}

bool reportsBusy(std::string_view message) {
    return mentions(message, {"busy"});
}

} // namespace VaultEngine
