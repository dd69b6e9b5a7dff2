#include "Cancellation.h"

#include "OperationCancelled.h"

#include <cerrno>
#include <csignal>
#include <sched.h>

// Both are used in a signal handler.
static_assert(std::atomic<int>::is_always_lock_free);

bool Cancellation::request() noexcept {
    State state = State::open;
    if (!state_.compare_exchange_strong(state, State::requested) && state == State::committed)
        return false;
    const int savedErrno = errno;
    signalling_.fetch_add(1);
    const pid_t child = child_.load();
    if (child > 0) ::kill(child, SIGTERM);
    signalling_.fetch_sub(1);
    errno = savedErrno;
    return true;
}

void Cancellation::commit() {
    State state = State::open;
    if (!state_.compare_exchange_strong(state, State::committed) && state == State::requested)
        throw OperationCancelled();
}

void Cancellation::watchChild(pid_t child) noexcept {
    child_.store(child);
    if (child > 0) {
        if (requested()) ::kill(child, SIGTERM);
        return;
    }
    // Whoever read the former number has not necessarily signalled it yet.
    while (signalling_.load() != 0) ::sched_yield();
}
