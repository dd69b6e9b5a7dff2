#pragma once

#include "linux/ditto/FileDescriptor.h"
#include "linux/ditto/FileError.h"
#include "linux/ditto/Status.h"

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

/// One entry as the target of metadata operations: an open descriptor, or a name in an open
/// directory for entries that are never opened (symbolic links, FIFOs, devices). Links are not
/// followed. Holds nothing: descriptor and name must outlive it. Everything throws FileError.
class Node {
public:
    Node(Side side, int fd) noexcept : side_(side), fd_(fd) {}
    Node(Side side, int directory, const char* name) noexcept
        : side_(side), fd_(directory), name_(name) {}

    Side side() const noexcept { return side_; }
    Status status() const { return statusAt(side_, fd_, name_); }

    /// False when the system does not let this user give that owner or group away;
    /// -1 leaves one of them as it is.
    bool setOwner(uid_t owner, gid_t group) const;
    void setMode(mode_t permissions) const;
    void setTimes(const timespec& accessed, const timespec& modified) const;

    /// What a symbolic link, given by name, contains. Reading it changes its time of last access,
    /// which nothing can prevent.
    std::string linkTarget() const;

    /// The names of all extended attributes; none where the file system has no attributes.
    std::vector<std::string> attributeNames() const;
    /// Absent when there is no such attribute (any more).
    std::optional<std::string> attribute(const std::string& name) const;
    void setAttribute(const std::string& name, const std::string& value) const;
    void removeAttribute(const std::string& name) const;

private:
    bool byName() const noexcept { return *name_ != '\0'; }
    /// A path that leads to the entry from anywhere, for calls that take no directory.
    std::string path() const;

    Side side_;
    int fd_;
    const char* name_ = "";
};

/// Opens `name` in `directory` to read it, links not followed, without touching its time of last
/// access where permitted. `flags` are added. Throws FileError.
FileDescriptor openToRead(Side side, int directory, const char* name, int flags);
