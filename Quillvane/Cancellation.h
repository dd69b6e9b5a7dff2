#pragma once

#include <atomic>
#include <sys/types.h>

/// A request to stop a running operation at its next safe point.
///
/// The operation looks at `requested()` between its steps until its point of no return, where it
/// calls `commit()`; a tool that is under way is ended at once. A request is either heard or
/// refused, never forgotten. `request()` may be called from any thread and from a signal handler.
/// The object must outlive the operation.
class Cancellation {
public:
    /// Returns false when it is too late: the operation is past its point of no return.
    bool request() noexcept;
    bool requested() const noexcept { return state_.load() == State::requested; }
    /// From here on requests are refused. Throws `OperationCancelled` when one has come before.
    void commit();

    /// The child process to end (SIGTERM) when the request arrives; 0 for none. Set by the runner
    /// after the launch and cleared before the child is reaped, so that a reused process number is
    /// never signalled. A request that came before ends the child at once.
    void watchChild(pid_t child) noexcept;

private:
    enum class State : int { open, requested, committed };

    std::atomic<State> state_{State::open};
    std::atomic<pid_t> child_{0};
    /// Number of `request()` calls that may be about to signal the child they have read.
    std::atomic<int> signalling_{0};
};
