#include "linux/ditto/Attributes.h"

#include <algorithm>
#include <array>

bool isCopiedAttribute(std::string_view name) noexcept {
    constexpr std::array<std::string_view, 2> lists{"system.posix_acl_access",
                                                    "system.posix_acl_default"};
    constexpr std::array<std::string_view, 5> ofTheSystem{"security.selinux", "security.SMACK64",
                                                          "security.apparmor", "security.ima",
                                                          "security.evm"};
    if (std::find(lists.begin(), lists.end(), name) != lists.end()) return true;
    if (name.starts_with("user.") || name.starts_with("trusted.")) return true;
    return name.starts_with("security.") &&
           std::none_of(ofTheSystem.begin(), ofTheSystem.end(),
                        [&](std::string_view prefix) { return name.starts_with(prefix); });
}

Attributes attributesOf(const Node& node) {
    Attributes attributes;
    for (std::string& name : node.attributeNames()) {
        if (!isCopiedAttribute(name)) continue;
        if (auto value = node.attribute(name)) {
            attributes.emplace_back(std::move(name), std::move(*value));
        }
    }
    std::sort(attributes.begin(), attributes.end());
    return attributes;
}

void setAttributes(const Node& node, const Attributes& attributes) {
    for (const auto& [name, value] : attributes) node.setAttribute(name, value);
}

void removeAttributes(const Node& node) {
    for (const std::string& name : node.attributeNames()) {
        if (isCopiedAttribute(name)) node.removeAttribute(name);
    }
}
