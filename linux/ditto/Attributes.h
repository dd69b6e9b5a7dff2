#pragma once

#include "linux/ditto/Node.h"

#include <string>
#include <utility>
#include <vector>

/// Extended attributes with their values, in the order of their names. POSIX access control lists
/// are among them: the kernel shows them as system.posix_acl_access and system.posix_acl_default.
using Attributes = std::vector<std::pair<std::string, std::string>>;

/// All attributes of `node` that go with a copy (`isCopiedAttribute`). Throws FileError.
Attributes attributesOf(const Node& node);

/// Gives `node` all of `attributes`. Throws FileError that names the attribute.
void setAttributes(const Node& node, const Attributes& attributes);

/// Takes every attribute that a copy would bring from `node`. Throws FileError.
void removeAttributes(const Node& node);
