#pragma once

#include "Cancellation.h"
#include "ProcessLaunchError.h"
#include "ProcessResult.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

/// The one place that starts command-line tools.
///
/// A tool is started without a shell, in a process group of its own (the terminal's Ctrl-C does
/// not reach it), with default signal handling and none of our open files.
namespace ProcessRunner {

/// Pause before a launch that failed is tried once more.
inline constexpr std::chrono::milliseconds retryPause{80};

/// Runs the tool and waits until it has ended and closed its output and error streams.
///
/// `standardInput` is written whole and then closed; without it the tool inherits ours. A tool
/// that fails is a result, not an error. A launch that fails is tried once more after
/// `retryPause`. A request through `cancellation` ends the tool with SIGTERM, which again is a
/// result. Throws `ProcessLaunchError`, or `std::system_error` when pipes or threads run out.
/// Safe on any thread, and on several at a time.
ProcessResult run(const std::filesystem::path& executablePath,
                  const std::vector<std::string>& arguments,
                  std::optional<std::span<const std::uint8_t>> standardInput = std::nullopt,
                  Cancellation* cancellation = nullptr);

/// Calls `launch()`; when it throws `ProcessLaunchError`, calls it once more after `retryPause`
/// and lets that outcome stand.
template <typename Launch> auto retryingLaunch(Launch&& launch) {
    try {
        return launch();
    } catch (const ProcessLaunchError&) {
        std::this_thread::sleep_for(retryPause);
    }
    return launch();
}

} // namespace ProcessRunner
