#include "qv/Interruption.h"

#include "Quillvane/OperationCancelled.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <sys/select.h>
#include <sys/types.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr std::array endingSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Static, because a signal handler has to reach them.
Cancellation request;
std::atomic<bool> stopRequested{false};

// On a line of its own: a line of progress may be under way.
constexpr std::string_view tooLate = "\nIt can't be cancelled any more; it is being finished.\n";

extern "C" {
static void onEndingSignal(int) {
    if (request.request()) return;
    // Nothing more can be done about an error here.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, tooLate.data(), tooLate.size());
}
static void onStopSignal(int) {
    stopRequested = true;
}
}

void handle(int signal, void (*handler)(int), struct sigaction* former = nullptr) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, former);
}

} // namespace

void Interruption::install() {
    for (const int signal : endingSignals) {
        struct sigaction former;
        handle(signal, onEndingSignal, &former);
        if (former.sa_handler == SIG_IGN) sigaction(signal, &former, nullptr);
    }
    handle(SIGPIPE, SIG_IGN);
}

Cancellation& Interruption::cancellation() {
    return request;
}

Interruption::InputWait::InputWait(bool watchStop) : watchStop_(watchStop) {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : endingSignals) sigaddset(&held, signal);
    sigaddset(&held, SIGTSTP);
    pthread_sigmask(SIG_BLOCK, &held, &formerMask_);
    if (watchStop_) handle(SIGTSTP, onStopSignal, &formerStop_);
}

Interruption::InputWait::~InputWait() {
    if (watchStop_) sigaction(SIGTSTP, &formerStop_, nullptr);
    pthread_sigmask(SIG_SETMASK, &formerMask_, nullptr);
}

Interruption::InputWait::End Interruption::InputWait::untilReadable(int fd) {
    while (true) {
        if (request.requested()) throw OperationCancelled();
        if (stopRequested.exchange(false)) return End::stopped;
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        // Lets the signals in, and takes them out again, in one step with the wait.
        if (pselect(fd + 1, &readable, nullptr, nullptr, nullptr, &formerMask_) == 1) {
            return End::readable;
        }
        if (errno != EINTR) throw std::system_error(errno, std::generic_category());
    }
}

void Interruption::stopProcess() {
    static_cast<void>(raise(SIGTSTP));
}
