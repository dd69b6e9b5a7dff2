#include "linux/hdiutil/ControlSocket.h"
#include "tests/support/OrdinaryUser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <system_error>

namespace {

/// Calls `check` with the address of a socket at which a process of the user `nobody` listens.
void withServerOfAnother(const std::function<void(const ControlAddress&)>& check) {
    int ready[2]{-1, -1};
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t server = ::fork();
    ASSERT_GE(server, 0);
    if (server == 0) {
        if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) ::_exit(1);
        const ControlSocket socket;
        const ControlAddress address = socket.address();
        if (::write(ready[1], &address, sizeof address) != sizeof address) ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    ControlAddress address{};
    EXPECT_EQ(::read(ready[0], &address, sizeof address), ssize_t{sizeof address});
    check(address);
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST(ControlSocketTest, IsReachedByItsOwnUser) {
    const ControlSocket socket;
    const FileDescriptor client = connectControl(socket.address());
    ASSERT_TRUE(sendPacket(client.get(), "question"));
    const FileDescriptor served = socket.accept();
    ASSERT_TRUE(served);
    EXPECT_EQ(receivePacket(served.get()), "question");
}

TEST(ControlSocketTest, AServerOfAnotherUserIsAskedNothing) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be another user";
    withServerOfAnother([](const ControlAddress& address) {
        try {
            connectControl(address);
            ADD_FAILURE() << "connected";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::operation_not_permitted);
        }
    });
}

} // namespace
