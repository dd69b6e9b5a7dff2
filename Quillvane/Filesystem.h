#pragma once

#include <string>

/// The format of the volume in a new image, as it is asked of the disk-image tool.
enum class Filesystem { apfs, macOSExtendedJournaled };

/// The format's name on the disk-image tool's command line.
inline std::string commandLineName(Filesystem filesystem) {
    return filesystem == Filesystem::apfs ? "APFS" : "JHFS+";
}
