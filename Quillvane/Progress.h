#pragma once

#include <functional>
#include <optional>
#include <string>

/// One report of a running operation.
struct Progress {
    /// From 0 to 1; absent while the duration is unknown.
    std::optional<double> fraction;
    std::string message;
    /// Whether the operation can still be cancelled.
    bool cancellable = true;
};

/// Receives reports, one at a time, on the operation's thread or on its copy poller.
using ProgressCallback = std::function<void(const Progress&)>;
