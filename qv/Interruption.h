#pragma once

#include "Quillvane/Cancellation.h"

#include <csignal>

/// The signals that ask the program to stop: SIGINT, SIGTERM, SIGHUP and SIGQUIT.
///
/// They never end the program by themselves, however often they come: they become a request that
/// the operation answers when it has tidied up, or is refused on standard error once the operation
/// is past its point of no return.
namespace Interruption {

/// Takes charge of the signals, and ignores SIGPIPE: a write then fails and is noticed. Signals
/// that the caller had ignored (nohup) stay ignored. To be called once, by the main thread.
void install();

/// The request, for the operations.
Cancellation& cancellation();

/// Waits for input. As long as it lives the signals come in nowhere but in `untilReadable`, so none
/// is lost between two steps of the caller. For the main thread.
class InputWait {
public:
    /// With `watchStop` the terminal's Ctrl-Z is one of the signals.
    explicit InputWait(bool watchStop);
    ~InputWait();
    InputWait(const InputWait&) = delete;
    InputWait& operator=(const InputWait&) = delete;

    enum class End { readable, stopped };
    /// Returns when `fd` can be read, or `stopped` when Ctrl-Z came in; the caller then ends this
    /// object and calls `stopProcess`. Throws `OperationCancelled` when a stop is requested.
    End untilReadable(int fd);

private:
    bool watchStop_;
    struct sigaction formerStop_ = {};
    sigset_t formerMask_;
};

/// Does what Ctrl-Z asked for, and returns when the program goes on.
void stopProcess();

} // namespace Interruption
