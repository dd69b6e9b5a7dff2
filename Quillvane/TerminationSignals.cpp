#include "TerminationSignals.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace {

constexpr std::array endingSignals{SIGTERM, SIGINT, SIGHUP, SIGQUIT};

std::atomic<bool> inUse{false};
std::atomic<int> writeEnd{-1};

extern "C" void onEndingSignal(int signal) {
    const int error = errno;
    const auto number = static_cast<unsigned char>(signal);
    // A pipe that is full holds signals enough.
    [[maybe_unused]] const ssize_t written = ::write(writeEnd, &number, 1);
    errno = error;
}

// The descriptor to read from. The pipe is made once and never closed: a handler may still be
// running on another thread when an object ends, and must not write to a file that came later.
int readEnd() {
    static const int end = [] {
        std::array<int, 2> ends{};
        if (::pipe(ends.data()) != 0) throw std::system_error(errno, std::generic_category());
        for (const int fd : ends) {
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
            ::fcntl(fd, F_SETFL, O_NONBLOCK);
        }
        writeEnd = ends[1];
        return ends[0];
    }();
    return end;
}

int claimReadEnd() {
    const int end = readEnd();
    if (inUse.exchange(true)) throw std::logic_error("TerminationSignals: one at a time");
    return end;
}

// A signal that was not read any more by the object that it came to is nobody's.
void forget(int end) {
    std::array<char, 64> received{};
    while (::read(end, received.data(), received.size()) > 0) {
    }
}

} // namespace

TerminationSignals::TerminationSignals(QObject* parent)
    : QObject(parent), arrived_(claimReadEnd(), QSocketNotifier::Read) {
    forget(arrived_.socket());
    connect(&arrived_, &QSocketNotifier::activated, this, &TerminationSignals::readOne);
    takeOver();
}

TerminationSignals::~TerminationSignals() {
    for (const Former& former : former_) sigaction(former.signal, &former.action, nullptr);
    inUse = false;
}

void TerminationSignals::takeOver() {
    struct sigaction action = {};
    action.sa_handler = onEndingSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    former_.reserve(endingSignals.size());
    for (const int signal : endingSignals) {
        Former former{signal, {}};
        sigaction(signal, nullptr, &former.action);
        if (former.action.sa_handler == SIG_IGN) continue;
        sigaction(signal, &action, nullptr);
        former_.push_back(former);
    }
}

void TerminationSignals::readOne() {
    // The notifier comes again for the next, even if the receiver ends this object or waits for
    // more in a loop of its own.
    unsigned char number = 0;
    if (::read(arrived_.socket(), &number, 1) == 1) emit received(number);
}
