#include "Confinement.h"

#include "Calls.h"

#include <linux/seccomp.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Message = Confinement::Message;
using Kind = Message::Kind;

NotSupported missing(const std::string& what) {
    return NotSupported(what + ": " + std::strerror(errno));
}

// The first process. It throws nothing and allocates little: it is a fork of its parent.

[[noreturn]] void stop(const char* what) {
    std::perror(what);
    ::_exit(EXIT_FAILURE);
}

int installFilter() {
    std::vector<sock_filter> program = callFilter();
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    // An answered call is not begun again for a signal, which would count it twice.
    constexpr unsigned flags =
        SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV;
    return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &filter));
}

void tell(int socket, Kind kind, int status = 0) {
    const Message message{kind, status};
    if (::send(socket, &message, sizeof message, MSG_NOSIGNAL) < 0) ::_exit(EXIT_FAILURE);
}

/// Sends the listener, or the number of the error that there is instead.
void sendListener(int socket, int listener) {
    std::int32_t error = listener < 0 ? errno : 0;
    iovec data{&error, sizeof error};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (listener >= 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof listener);
        std::memcpy(CMSG_DATA(header), &listener, sizeof listener);
    }
    if (::sendmsg(socket, &message, MSG_NOSIGNAL) < 0) ::_exit(EXIT_FAILURE);
}

void becomeUser(uid_t user) {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
        ::setresuid(user, user, user) != 0)
        stop("cannot become the user");
}

[[noreturn]] void execute(const Confinement::Command& command, const Confinement::Options& all) {
    const int input = ::open(all.standardInput.c_str(), O_RDONLY);
    if (input < 0 || ::dup2(input, STDIN_FILENO) < 0) stop("cannot open the standard input");
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    if (all.user) becomeUser(*all.user);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    stop(arguments[0]);
}

/// How a command ended. Others that have lost their parents are waited for as well.
int run(const Confinement::Command& command, const Confinement::Options& options) {
    const pid_t child = ::fork();
    if (child < 0) stop("cannot fork");
    if (child == 0) execute(command, options);
    int status = 0;
    pid_t ended = 0;
    while (ended != child) {
        ended = ::waitpid(-1, &status, 0);
        if (ended < 0 && errno != EINTR) stop("cannot wait");
    }
    return status;
}

[[noreturn]] void runAll(const Confinement::Options& options, int socket) {
    for (const Confinement::Command& command : options.commands) {
        const bool last = &command == &options.commands.back();
        char answer = 0;
        if (last) tell(socket, Kind::lastBegins);
        if (last && ::recv(socket, &answer, sizeof answer, 0) <= 0) ::_exit(EXIT_FAILURE);
        const int status = run(command, options);
        if (last) tell(socket, Kind::ended, status);
        if (!last && status != 0) tell(socket, Kind::failed, status);
        if (!last && status != 0) break;
    }
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    tell(socket, Kind::alone);
    while (true) ::pause();
}

[[noreturn]] void firstProcess(const Confinement::Options& options, int socket) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        stop("cannot make a mount namespace");
    const int listener = installFilter();
    sendListener(socket, listener);
    if (listener < 0) ::_exit(EXIT_FAILURE);
    ::close(listener);
    runAll(options, socket);
}

FileDescriptor receiveListener(int socket) {
    std::int32_t error = 0;
    iovec data{&error, sizeof error};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (::recvmsg(socket, &message, MSG_CMSG_CLOEXEC) <= 0)
        throw std::runtime_error("the first process has ended");
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    errno = error;
    if (!header) throw missing("the kernel reports no system calls to a listener");
    int listener = -1;
    std::memcpy(&listener, CMSG_DATA(header), sizeof listener);
    return FileDescriptor(listener);
}

} // namespace

Confinement::Confinement(const Options& options) {
    std::array<int, 2> ends{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw missing("socketpair");
    socket_ = FileDescriptor(ends[0]);
    FileDescriptor theirs(ends[1]);
    if (::unshare(CLONE_NEWPID) != 0) throw missing("no process namespace can be made");
    first_ = ::fork();
    if (first_ < 0) throw missing("fork");
    if (first_ == 0) firstProcess(options, theirs.get());
    theirs.reset(); // so that its end shows
    try {
        listener_ = receiveListener(socket_.get());
    } catch (...) {
        kill();
        throw;
    }
}

std::optional<Message> Confinement::receive() const {
    Message message{};
    if (::recv(socket_.get(), &message, sizeof message, 0) != sizeof message) return std::nullopt;
    return message;
}

void Confinement::proceed() const {
    const char answer = 0;
    if (::send(socket_.get(), &answer, sizeof answer, MSG_NOSIGNAL) < 0) throw missing("send");
}

void Confinement::kill() noexcept {
    if (first_ < 0) return;
    ::kill(first_, SIGKILL);
    while (::waitpid(first_, nullptr, 0) < 0 && errno == EINTR) {
    }
    first_ = -1;
}
