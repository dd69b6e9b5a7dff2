#include "Quillvane/Platform.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace Platform {
namespace {

namespace fs = std::filesystem;

/// The variable's value if it is an absolute path; others are to be ignored.
fs::path absoluteFrom(const char* variable) {
    const char* const given = std::getenv(variable); // NOLINT(concurrency-mt-unsafe)
    return given != nullptr && given[0] == '/' ? fs::path(given) : fs::path();
}

fs::path homeDirectory() {
    if (fs::path home = absoluteFrom("HOME"); !home.empty()) return home;
    passwd account{};
    passwd* found = nullptr;
    std::array<char, 4096> buffer{};
    ::getpwuid_r(::geteuid(), &account, buffer.data(), buffer.size(), &found);
    if (found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/')
        throw std::system_error(ENOENT, std::generic_category(), "home directory");
    return found->pw_dir;
}

fs::path& chosen() {
    static fs::path directory;
    return directory;
}

} // namespace

fs::path stateDirectory() {
    if (!chosen().empty()) return chosen();
    fs::path base = absoluteFrom("XDG_STATE_HOME");
    if (base.empty()) base = homeDirectory() / ".local/state";
    return base / "quillvane";
}

void setStateDirectory(fs::path directory) {
    chosen() = std::move(directory);
}

} // namespace Platform
