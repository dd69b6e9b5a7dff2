#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

/// The mounts that this process sees.
namespace MountList {

struct Entry {
    std::string mountPoint;
    std::string type;
    std::string source;
};

/// The type of the volumes that our own disk-image tool mounts.
inline constexpr std::string_view ownType = "fuse.quillvane";

/// The lines of a mountinfo file (proc(5)), oldest mount first; octal escapes decoded. Lines that
/// are not of that form are left out.
std::vector<Entry> parse(std::string_view mountinfo);
/// The mounts at present; none when the system does not tell.
std::vector<Entry> read();

/// True when the mount's server has ended, so that nothing in it can be reached any more.
bool isDead(const Entry& entry);
/// Takes a dead mount of our own tool out of the tree, as far as that works.
void cleanUp(const Entry& entry);

} // namespace MountList
