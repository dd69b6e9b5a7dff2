#pragma once

#include <cstdint>
#include <sys/ioctl.h>

/// How `hdiutil detach` talks to the server of a mounted volume.
///
/// An ioctl on the volume's root directory tells where the server listens: an abstract
/// SOCK_SEQPACKET socket. One packet carries the request, one packet the answer: `replyOk`,
/// `replyBusy`, or `replyFailed` followed by a text for the user.

/// Answer of the ioctl. Only the volume's owner reaches it, as only he can open the directory.
struct ControlAddress {
    std::int32_t pid;    ///< the server's process
    char socketName[64]; ///< zero-terminated, without the zero byte that marks it as abstract
};

constexpr unsigned long controlAddressRequest = _IOR('Q', 1, ControlAddress);

constexpr const char* requestDetach = "detach";
constexpr const char* requestDetachForce = "detach force";

constexpr const char* replyOk = "ok";
constexpr const char* replyBusy = "busy";
constexpr const char* replyFailed = "failed ";
constexpr unsigned maximumControlPacket = 4096;
