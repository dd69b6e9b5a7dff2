#include "MountTable.h"
#include "Quillvane/Platform.h"

#include <algorithm>

std::optional<std::string> Platform::placeOfVolumeOf(const std::string& formerImagePath) {
    const MountTable table = MountTable::current();
    const auto& entries = table.entries();
    // The source of a mount is what the image was called then.
    const auto found = std::find_if(entries.rbegin(), entries.rend(), [&](const MountEntry& mount) {
        return mount.type == MountTable::volumeType && mount.isOwn() &&
               mount.source == formerImagePath;
    });
    if (found == entries.rend()) return std::nullopt;
    return found->mountPoint.string();
}
