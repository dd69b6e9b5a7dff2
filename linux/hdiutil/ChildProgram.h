#pragma once

#include "BlockedSignals.h"

#include <string>
#include <vector>

struct ProgramResult {
    int status = 0;     ///< exit status, or 128 + signal
    std::string output; ///< both streams, the last 16 KiB
};

/// Runs a program by absolute path with these arguments and waits for it. It gets an empty
/// standard input and an environment of its own. With `signals`, one of them kills the program and
/// throws `Interrupted`. Throws `std::system_error` when the program cannot be started.
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const BlockedSignals* signals = nullptr);
