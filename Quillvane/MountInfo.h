#pragma once

#include <optional>
#include <string>

/// An attached image.
struct MountInfo {
    /// The whole-disk node "/dev/diskN", when the disk-image tool named one.
    std::optional<std::string> diskDevEntry;
    /// Absolute path where the image's volume is mounted.
    std::string mountPoint;
};
