#pragma once

#include <cstdint>
#include <sys/ioctl.h>

/// What the server of a mounted volume tells, and how `hdiutil detach` talks to it.
///
/// Two ioctls on the volume's root directory, which only the volume's owner can open, tell which
/// file the volume is in, and where the server listens: at an abstract SOCK_SEQPACKET socket. One
/// packet there carries the request, one packet the answer: `replyOk`, `replyBusy`, or
/// `replyFailed` followed by a text for the user.

struct ControlAddress {
    std::int32_t pid;    ///< the server's process
    char socketName[64]; ///< zero-terminated, without the zero byte that marks it as abstract
};

constexpr unsigned long controlAddressRequest = _IOR('Q', 1, ControlAddress);

/// The image, which may have been renamed since the mount table got its name. Both numbers are as
/// stat(2) tells them.
struct ImageIdentity {
    std::uint64_t device;
    std::uint64_t inode;

    bool operator==(const ImageIdentity&) const = default;
};

constexpr unsigned long imageIdentityRequest = _IOR('Q', 2, ImageIdentity);

constexpr const char* requestDetach = "detach";
constexpr const char* requestDetachForce = "detach force";

constexpr const char* replyOk = "ok";
constexpr const char* replyBusy = "busy";
constexpr const char* replyFailed = "failed ";
constexpr unsigned maximumControlPacket = 4096;
