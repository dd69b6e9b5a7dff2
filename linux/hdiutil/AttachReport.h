#pragma once

#include <filesystem>
#include <string>

/// Where an image's volume has been attached.
struct Attachment {
    std::string device; ///< "/dev/disk" and a number
    std::filesystem::path mountPoint;
};

/// The property list (XML) that tells callers about it. Throws `ToolError`.
std::string attachReportPlist(const Attachment& attachment);
/// The line that tells people.
std::string attachReportLine(const Attachment& attachment);
