#include "ControlSocket.h"

#include <openssl/rand.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>

namespace {

constexpr int backlog = 8;
// A caller sends its request at once; one that does not must not hold up the others.
constexpr timeval requestLimit{1, 0};

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string randomName() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), bytes.size()) != 1) {
        errno = EIO;
        throwErrno("random numbers");
    }
    std::string name = "quillvane-hdiutil-";
    constexpr const char* digits = "0123456789abcdef";
    for (const unsigned char byte : bytes) {
        name += digits[byte >> 4];
        name += digits[byte & 15];
    }
    return name;
}

struct AbstractAddress {
    explicit AbstractAddress(const ControlAddress& from) {
        address.sun_family = AF_UNIX;
        const std::size_t size = ::strnlen(from.socketName, sizeof from.socketName);
        std::memcpy(address.sun_path + 1, from.socketName, size);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }

    sockaddr_un address{};
    socklen_t length = 0;
};

FileDescriptor newSocket(int flags) {
    FileDescriptor fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
    if (!fd) throwErrno("socket");
    return fd;
}

/// The user at the other end; nobody when the system does not tell.
std::optional<uid_t> peerOf(int fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return std::nullopt;
    return peer.uid;
}

bool mayAsk(int fd) {
    const auto user = peerOf(fd);
    return user == ::geteuid() || user == uid_t{0};
}

} // namespace

ControlSocket::ControlSocket() : fd_(newSocket(SOCK_NONBLOCK)) {
    address_.pid = ::getpid();
    const std::string name = randomName();
    name.copy(address_.socketName, sizeof address_.socketName - 1);
    const AbstractAddress own(address_);
    if (::bind(fd_.get(), own.get(), own.length) != 0) throwErrno("bind");
    if (::listen(fd_.get(), backlog) != 0) throwErrno("listen");
}

FileDescriptor ControlSocket::accept() const noexcept {
    FileDescriptor client(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client || !mayAsk(client.get())) return FileDescriptor();
    ::setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &requestLimit, sizeof requestLimit);
    return client;
}

FileDescriptor connectControl(const ControlAddress& address) {
    FileDescriptor fd = newSocket(0);
    const AbstractAddress server(address);
    if (::connect(fd.get(), server.get(), server.length) != 0) throwErrno("connect");
    if (peerOf(fd.get()) != ::geteuid()) {
        errno = EPERM;
        throwErrno("the server is another user's");
    }
    return fd;
}

bool sendPacket(int fd, const std::string& packet) noexcept {
    const std::size_t size = std::min<std::size_t>(packet.size(), maximumControlPacket);
    return ::send(fd, packet.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

std::optional<std::string> receivePacket(int fd) noexcept {
    std::array<char, maximumControlPacket> buffer{};
    ssize_t got = -1;
    do {
        got = ::recv(fd, buffer.data(), buffer.size(), 0);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return std::nullopt;
    return std::string(buffer.data(), static_cast<std::size_t>(got));
}
