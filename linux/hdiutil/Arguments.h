#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>

/// The tool's command lines, understood.
///
/// Options come in any order before, between or after the one operand.

struct CreateArguments {
    std::uint64_t size = 0; ///< bytes of content that the volume must be able to hold
    std::string volumeName = "untitled";
    std::string image;
};

struct AttachArguments {
    bool plist = false;
    bool browsable = true;
    std::string mountPoint; ///< empty: the tool chooses
    std::string image;
};

struct DetachArguments {
    bool force = false;
    std::string target; ///< dev-entry or mount point
};

using Arguments = std::variant<CreateArguments, AttachArguments, DetachArguments>;

/// `arguments` without the program's name. Throws `UsageError`.
Arguments parseArguments(std::span<const char* const> arguments);
