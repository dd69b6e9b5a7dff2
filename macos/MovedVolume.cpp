#include "Quillvane/Platform.h"

std::optional<std::string> Platform::placeOfVolumeOf(const std::string& /*formerImagePath*/) {
    // A directory that holds a mount point cannot be renamed here.
    return std::nullopt;
}
