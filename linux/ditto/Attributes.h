#pragma once

#include "linux/ditto/Node.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Extended attributes with their values, in the order of their names. POSIX access control lists
/// are among them: the kernel shows them as system.posix_acl_access and system.posix_acl_default.
using Attributes = std::vector<std::pair<std::string, std::string>>;

/// True for attributes that belong to the user's data and go with a copy: user.*, trusted.*,
/// security.* and access control lists.
///
/// False for what a system keeps about its own copy of a file: the labels and signatures of
/// security modules (security.selinux, security.SMACK64*, security.apparmor, security.ima,
/// security.evm), and properties of one file-system type (every other system.* name, btrfs.*,
/// ceph.* and whatever has no namespace).
bool isCopiedAttribute(std::string_view name) noexcept;

/// All attributes of `node` that go with a copy. Throws FileError.
Attributes attributesOf(const Node& node);

/// Gives `node` all of `attributes`. Throws FileError that names the attribute.
void setAttributes(const Node& node, const Attributes& attributes);

/// Takes every attribute that a copy would bring from `node`. Throws FileError.
void removeAttributes(const Node& node);
