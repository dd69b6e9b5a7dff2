#pragma once

#include "linux/ditto/Report.h"

#include <string>

/// Copies the contents and the metadata of the folder `source` into the folder `destination`,
/// which is created unless it exists, reads everything back and compares it with the source.
///
/// True when the copy is whole, verified and on the disk. Otherwise `report` names at least one
/// problem, and the destination holds an incomplete copy. An existing destination may hold other
/// entries, which stay; its own attributes and permissions are replaced. Neither folder may be a
/// symbolic link or lie inside the other.
bool copyFolder(const std::string& source, const std::string& destination, Report& report);
