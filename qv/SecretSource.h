#pragma once

#include "Quillvane/Secret.h"

#include <functional>
#include <optional>
#include <string_view>

/// A new password and its repetition, which may differ.
struct NewPassword {
    Secret password;
    Secret confirmation;
};

/// Where passwords and recovery keys come from. Asked on the main thread, in the order that the
/// user is told of. Both throw `OperationCancelled` when the program is asked to stop meanwhile.
class SecretSource {
public:
    SecretSource() = default;
    virtual ~SecretSource() = default;
    SecretSource(const SecretSource&) = delete;
    SecretSource& operator=(const SecretSource&) = delete;

    /// `name` tells what is wanted, as "Password".
    virtual Secret existing(std::string_view name) = 0;
    virtual NewPassword fresh(std::string_view name) = 0;
};

/// Reads up to the next line feed or the end of the input, and leaves out the line feed; nothing
/// when the input was at its end. Not a byte is read ahead and none is left in memory elsewhere.
/// `awaitInput` is called before each byte and returns when there is something to read.
std::optional<Secret> readSecretLine(int fd, const std::function<void()>& awaitInput);
