#pragma once

#include <atomic>
#include <sys/types.h>

/// A request to stop a running operation at its next safe point.
///
/// The operation looks at `requested()` between its steps until its point of no return; a copy
/// that is under way is ended at once. `request()` may be called from any thread and from a signal
/// handler. The object must outlive the operation.
class Cancellation {
public:
    void request() noexcept;
    bool requested() const noexcept { return requested_.load(); }

    /// The child process to end (SIGTERM) when the request arrives; 0 for none. Set by the runner
    /// after the launch and cleared before the child is reaped, so that a reused process number is
    /// never signalled. A request that came before ends the child at once.
    void watchChild(pid_t child) noexcept;

private:
    std::atomic<bool> requested_{false};
    std::atomic<pid_t> child_{0};
    /// Number of `request()` calls that may be about to signal the child they have read.
    std::atomic<int> signalling_{0};
};
