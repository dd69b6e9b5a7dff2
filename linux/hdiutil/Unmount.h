#pragma once

#include <filesystem>

/// Takes away the topmost mount at `mountPoint`, as root directly, otherwise by way of fusermount3.
/// Fails with `std::system_error`: EBUSY when it is in use, EINVAL when nothing is mounted there.
void unmount(const std::filesystem::path& mountPoint);

/// The same at once, in use or not: it disappears from the directory tree, and ends when the last
/// user of it has gone or its server has.
void unmountLazily(const std::filesystem::path& mountPoint);
