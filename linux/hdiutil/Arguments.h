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

/// What a mounted volume allows besides what every volume does.
struct MountOptions {
    bool otherUsers = false;  ///< "allow_other": everybody may enter, as far as the modes let them
    bool setUserId = false;   ///< "suid": programs with the set-user-id bit run as their owner
    bool deviceFiles = false; ///< "dev": device files are devices
    bool any() const noexcept { return otherUsers || setUserId || deviceFiles; }
};

struct AttachArguments {
    bool plist = false;
    bool browsable = true;
    MountOptions mountOptions; ///< for root only
    std::string mountPoint;    ///< empty: the tool chooses
    std::string image;
};

struct DetachArguments {
    bool force = false;
    std::string target; ///< dev-entry or mount point
};

using Arguments = std::variant<CreateArguments, AttachArguments, DetachArguments>;

/// `arguments` without the program's name. Throws `UsageError`.
Arguments parseArguments(std::span<const char* const> arguments);
