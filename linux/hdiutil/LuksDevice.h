#pragma once

#include <libcryptsetup.h>

#include <cstdint>
#include <memory>

/// A libcryptsetup context on the open file `fd`, which must stay open; the library says nothing
/// by itself. Throws `ToolError`.
struct LuksDeviceDeleter {
    void operator()(crypt_device* device) const noexcept { crypt_free(device); }
};
using LuksDevice = std::unique_ptr<crypt_device, LuksDeviceDeleter>;
LuksDevice openLuksDevice(int fd);

/// The length of the open file in bytes. Throws `std::system_error`.
std::uint64_t fileLength(int fd);
