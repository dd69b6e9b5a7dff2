#include "FuseLoop.h"

#include <fuse_lowlevel.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>

namespace {

using namespace std::chrono_literals;

// A volume that is ejected by force may have programs that write without a pause.
constexpr auto drainLimit = 1s;

bool isTransient(int result) {
    return result == -EINTR || result == -EAGAIN;
}

} // namespace

FuseLoop::FuseLoop(fuse_session* session)
    : session_(session), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
    // A request seen by poll may be withdrawn before it is read; reading must not block then.
    const int fd = fuse_session_fd(session);
    if (::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK) != 0)
        throw std::system_error(errno, std::generic_category(), "/dev/fuse");
}

FuseLoop::End FuseLoop::run() noexcept {
    fuse_buf buffer{};
    End end = End::failed;
    while (true) {
        std::array<pollfd, 2> waiting{
            {{fuse_session_fd(session_), POLLIN, 0}, {wake_.get(), POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (waiting[1].revents != 0) {
            drain(buffer);
            end = End::stopped;
            break;
        }
        const int received = fuse_session_receive_buf(session_, &buffer);
        if (isTransient(received)) continue;
        if (received == 0) end = End::unmounted;
        if (received <= 0) break;
        fuse_session_process_buf(session_, &buffer);
    }
    std::free(buffer.mem);
    return end;
}

void FuseLoop::drain(fuse_buf& buffer) noexcept {
    const auto deadline = std::chrono::steady_clock::now() + drainLimit;
    while (std::chrono::steady_clock::now() < deadline) {
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
