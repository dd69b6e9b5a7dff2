#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>

/// What a command line asks for.
struct Arguments {
    enum class Command { lock, open, close, remove, change, smart, finish, undo, help, version };

    Command command = Command::help;
    /// The folder, item or mount point, as typed; empty for help and version, and for `finish`
    /// when it is to list what was interrupted.
    std::string operand;
    bool secretsFromStandardInput = false;
    bool useRecoveryKey = false;
    /// For `smart`: close the folder rather than open it.
    bool closeSmartFolder = false;
    /// For `smart`: the time of inactivity after which the folder is closed.
    std::optional<int> minutes;

    /// Understands the words after the program's name. Options may stand anywhere; "--" ends them.
    /// Throws `UsageError`.
    static Arguments parse(std::span<const char* const> words);
};

/// A command line that cannot be understood; the text says why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One line for people who have mistyped, and the whole of `qv --help`.
extern const char* const usageLine;
extern const char* const helpText;
