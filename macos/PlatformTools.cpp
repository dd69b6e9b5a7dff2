#include "Quillvane/Platform.h"

#include <utility>

namespace Platform {
namespace {

Tools& current() {
    static Tools tools{.hdiutil = "/usr/bin/hdiutil",
                       .ditto = "/usr/bin/ditto",
                       .open = "/usr/bin/open",
                       .mount = "/sbin/mount",
                       .dittoCompares = false};
    return tools;
}

} // namespace

const Tools& tools() {
    return current();
}

void setTools(Tools tools) {
    current() = std::move(tools);
}

} // namespace Platform
