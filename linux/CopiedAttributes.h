#pragma once

#include <algorithm>
#include <array>
#include <string_view>

/// True for extended attributes that belong to the user's data and go with a copy: user.*,
/// trusted.*, security.* and access control lists.
///
/// False for what a system keeps about its own copy of a file: the labels and signatures of
/// security modules (security.selinux, security.SMACK64*, security.apparmor, security.ima,
/// security.evm), and properties of one file-system type (every other system.* name, btrfs.*,
/// ceph.* and whatever has no namespace).
constexpr bool isCopiedAttribute(std::string_view name) noexcept {
    constexpr std::array<std::string_view, 2> lists{"system.posix_acl_access",
                                                    "system.posix_acl_default"};
    constexpr std::array<std::string_view, 5> ofTheSystem{"security.selinux", "security.SMACK64",
                                                          "security.apparmor", "security.ima",
                                                          "security.evm"};
    if (std::ranges::find(lists, name) != lists.end()) return true;
    if (name.starts_with("user.") || name.starts_with("trusted.")) return true;
    return name.starts_with("security.") &&
           std::ranges::none_of(ofTheSystem,
                                [&](std::string_view prefix) { return name.starts_with(prefix); });
}
