#include "linux/ditto/Attributes.h"

#include "linux/CopiedAttributes.h"

#include <algorithm>

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
