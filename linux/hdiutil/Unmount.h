#pragma once

#include <filesystem>

struct MountEntry;

/// Takes away the topmost mount at `mountPoint`, as root directly, otherwise by way of fusermount3.
/// Fails with `std::system_error`: EBUSY when it is in use, EINVAL when nothing is mounted there.
void unmount(const std::filesystem::path& mountPoint);

/// The same at once, in use or not: it disappears from the directory tree, and ends when the last
/// user of it has gone or its server has.
void unmountLazily(const std::filesystem::path& mountPoint);

/// Takes away every mount of `volume`, the newest first, wherever it is by now; done when there is
/// none. Fails like `unmount`, and with EBUSY where something else is mounted over it; newer mounts
/// of the volume may have gone then.
void unmountEverywhere(const MountEntry& volume, bool lazily);
