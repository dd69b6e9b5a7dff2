#pragma once

#include "ControlProtocol.h"
#include "Quillvane/FileDescriptor.h"

#include <optional>
#include <string>

/// The server's end of the control protocol: a socket with a name that cannot be guessed, which
/// only the user and root may use. Throws `std::system_error`.
class ControlSocket {
public:
    ControlSocket();

    const ControlAddress& address() const noexcept { return address_; }
    int fd() const noexcept { return fd_.get(); }
    /// The next caller, if he is still there and allowed to ask. Does not block.
    FileDescriptor accept() const noexcept;

private:
    ControlAddress address_{};
    FileDescriptor fd_;
};

/// A connection to the server at `address`, which must be the user's own: the address may come from
/// a file system that somebody else serves. Throws `std::system_error`.
FileDescriptor connectControl(const ControlAddress& address);
/// Whether the packet was sent.
bool sendPacket(int fd, const std::string& packet) noexcept;
/// The next packet; none when the other side has gone, is silent for longer than its time limit,
/// or sent an empty one.
std::optional<std::string> receivePacket(int fd) noexcept;
