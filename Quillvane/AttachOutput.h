#pragma once

#include "MountInfo.h"

#include <string_view>

/// What the disk-image tool prints about an image that it has attached.
namespace AttachOutput {

/// The first mount point and the first whole-disk node among the property list's
/// "system-entities". Throws `PropertyListError` when `bytes` are no property list, and
/// `VaultError` (mountPointNotFound) when it names no mount point.
MountInfo parse(std::string_view bytes);

} // namespace AttachOutput
