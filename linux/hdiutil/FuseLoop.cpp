#include "FuseLoop.h"

#include <fuse_lowlevel.h>
#include <linux/fuse.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A volume that is ejected by force may have programs that write without a pause.
constexpr auto drainLimit = 1s;
// A program that copies or lists asks again a few microseconds after each answer, and to wake a
// sleeping thread takes longer than most answers.
constexpr auto alertness = 100us;
// A shorter transfer is done before another thread would be awake.
constexpr std::uint32_t longTransfer = 64 * 1024;

bool isTransient(int result) {
    return result == -EINTR || result == -EAGAIN;
}

} // namespace

FuseLoop::FuseLoop(fuse_session* session, unsigned threads, std::function<bool()> syncTakesLong)
    : session_(session), threads_(threads), syncTakesLong_(std::move(syncTakesLong)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
    // A request seen by poll may be withdrawn before it is read; reading must not block then.
    const int fd = fuse_session_fd(session);
    if (::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK) != 0)
        throw std::system_error(errno, std::generic_category(), "/dev/fuse");
}

FuseLoop::~FuseLoop() = default;

FuseLoop::End FuseLoop::run() noexcept {
    std::vector<std::thread> others;
    try {
        while (others.size() + 1 < threads_) others.emplace_back([this] { serve(); });
    } catch (const std::exception&) {
        // Fewer threads serve as well, but slower.
    }
    serve();
    for (std::thread& thread : others) thread.join();
    return *end_;
}

void FuseLoop::serve() noexcept {
    fuse_buf buffer{};
    std::unique_lock waiting(waiting_);
    while (!end_) {
        const int received = receive(buffer);
        if (received <= 0) break;
        if (takesLong(buffer)) {
            waiting.unlock();
            fuse_session_process_buf(session_, &buffer);
            waiting.lock();
        } else {
            fuse_session_process_buf(session_, &buffer);
        }
    }
    std::free(buffer.mem);
}

/// Whether other requests should not have to wait for this one.
bool FuseLoop::takesLong(const fuse_buf& buffer) const {
    fuse_in_header header{};
    if (buffer.size < sizeof header) return false;
    std::memcpy(&header, buffer.mem, sizeof header);
    switch (header.opcode) {
    case FUSE_FSYNC:
    case FUSE_FSYNCDIR:
        return syncTakesLong_();
    case FUSE_FALLOCATE:
        return true;
    case FUSE_WRITE:
        return header.len >= longTransfer;
    case FUSE_READ: {
        fuse_read_in wanted{};
        if (buffer.size < sizeof header + sizeof wanted) return false;
        std::memcpy(&wanted, static_cast<const char*>(buffer.mem) + sizeof header, sizeof wanted);
        return wanted.size >= longTransfer;
    }
    default:
        return false;
    }
}

/// The next request, or at most 0 when there are no more; then `end_` says why.
int FuseLoop::receive(fuse_buf& buffer) noexcept {
    while (true) {
        int received = receiveSoon(buffer);
        if (isTransient(received)) {
            std::array<pollfd, 2> sources{
                {{fuse_session_fd(session_), POLLIN, 0}, {wake_.get(), POLLIN, 0}}};
            const bool failed = ::poll(sources.data(), sources.size(), -1) < 0;
            if (failed && errno == EINTR) continue;
            if (!failed && sources[1].revents != 0) {
                drain(buffer);
                end_ = End::stopped;
                return 0;
            }
            received = failed ? -errno : fuse_session_receive_buf(session_, &buffer);
        }
        if (isTransient(received)) continue;
        if (received <= 0) end_ = received == 0 ? End::unmounted : End::failed;
        return received;
    }
}

/// Looks for a request without sleeping; EAGAIN when none comes.
int FuseLoop::receiveSoon(fuse_buf& buffer) noexcept {
    const Clock::time_point limit = Clock::now() + alertness;
    int received = 0;
    do {
        received = fuse_session_receive_buf(session_, &buffer);
        if (!isTransient(received)) break;
        ::sched_yield(); // the program that is to ask may wait for this very processor
    } while (Clock::now() < limit);
    return received;
}

void FuseLoop::drain(fuse_buf& buffer) noexcept {
    const auto deadline = Clock::now() + drainLimit;
    while (Clock::now() < deadline) {
        const int received = fuse_session_receive_buf(session_, &buffer);
        if (received == -EINTR) continue;
        if (received <= 0) return;
        fuse_session_process_buf(session_, &buffer);
    }
}

void FuseLoop::stop() noexcept {
    // Cannot fail: the counter is far from its limit.
    (void)::eventfd_write(wake_.get(), 1);
}
