#include "Cancellation.h"

#include <cerrno>
#include <csignal>
#include <sched.h>

// Both are used in a signal handler.
static_assert(std::atomic<pid_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void Cancellation::request() noexcept {
    const int savedErrno = errno;
    signalling_.fetch_add(1);
    requested_.store(true);
    const pid_t child = child_.load();
    if (child > 0) ::kill(child, SIGTERM);
    signalling_.fetch_sub(1);
    errno = savedErrno;
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
