#pragma once

#include <cstdint>
#include <string>

/// What a finished tool left behind.
struct ProcessResult {
    /// The exit status, or the signal number when a signal ended the tool.
    std::int32_t exitCode = 0;
    /// Every byte the tool wrote to each stream. (The plain names are macros of <cstdio>.)
    std::string standardOutput;
    std::string standardError;

    /// The stream as UTF-8, ill-formed sequences replaced by U+FFFD; never trimmed.
    std::string stdoutString() const;
    std::string stderrString() const;
};
