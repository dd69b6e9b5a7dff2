#include "Quillvane/Platform.h"

#include <system_error>
#include <utility>

namespace Platform {
namespace {

Tools ownTools() {
    std::error_code unknown;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", unknown);
    const auto folder = (executable.parent_path() / "../libexec/quillvane").lexically_normal();
    return {.hdiutil = folder / "hdiutil",
            .ditto = folder / "ditto",
            .open = folder / "open",
            .mount = "/usr/bin/mount",
            .dittoCompares = true};
}

Tools& current() {
    static Tools tools = ownTools();
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
