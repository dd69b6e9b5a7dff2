#include "BlockedSignals.h"

#include "ToolError.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t endingSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

} // namespace

BlockedSignals::BlockedSignals() {
    const sigset_t set = endingSignals();
    pthread_sigmask(SIG_BLOCK, &set, &former_);
    fd_ = FileDescriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (fd_) return;
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    throw std::system_error(error, std::generic_category(), "signalfd");
}

BlockedSignals::~BlockedSignals() {
    signalfd_siginfo taken{};
    while (::read(fd_.get(), &taken, sizeof taken) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
}

bool BlockedSignals::pending() const noexcept {
    pollfd waiting{fd_.get(), POLLIN, 0};
    return ::poll(&waiting, 1, 0) > 0;
}

void BlockedSignals::check() const {
    if (pending()) throw Interrupted();
}
