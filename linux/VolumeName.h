#pragma once

#include "MountTable.h"

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>

/// What the user calls a volume.
namespace VolumeName {

/// The label of the file system on the device, if it has one. `labels` is the directory in which
/// the system keeps a link to each device that has a label, named after it.
std::optional<std::string> label(dev_t device, const std::filesystem::path& labels);
/// The name of the folder on which the volume that holds `path`, without links, is mounted; none
/// when the place is not one where the system or we mount volumes by their names.
std::optional<std::string> mountedAs(const MountTable& mounts, const std::filesystem::path& path);

} // namespace VolumeName
