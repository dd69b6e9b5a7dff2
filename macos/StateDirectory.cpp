#include "Quillvane/Platform.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace Platform {
namespace {

namespace fs = std::filesystem;

fs::path homeDirectory() {
    const char* const given = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe)
    if (given != nullptr && given[0] == '/') return given;
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
    return homeDirectory() / "Library/Application Support/Quillvane";
}

void setStateDirectory(fs::path directory) {
    chosen() = std::move(directory);
}

} // namespace Platform
