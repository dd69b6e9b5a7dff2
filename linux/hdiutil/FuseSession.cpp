#include "FuseSession.h"

#include "Quillvane/FileDescriptor.h"

#include <fuse_lowlevel.h>

#include <array>
#include <fcntl.h>
#include <unistd.h>

namespace {

// libfuse frees what it knows of a mount only by unmounting it, and that by path: it would hit
// whatever is mounted there by now. It refrains when the connection reports an error, as it does
// after an unmount. So the connection is closed by putting a broken pipe in its place.
void closeConnection(int connection) noexcept {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    ::close(ends[0]);
    ::dup3(ends[1], connection, O_CLOEXEC);
    ::close(ends[1]);
}

} // namespace

void FuseSessionDeleter::operator()(fuse_session* session) const noexcept {
    closeConnection(fuse_session_fd(session));
    fuse_session_unmount(session);
    fuse_session_destroy(session);
}

FuseSession mountFuse(const std::filesystem::path& mountPoint, const std::string& options,
                      const fuse_lowlevel_ops& operations, void* userData) {
    std::array<std::string, 3> words{"hdiutil", "-o", options};
    std::array<char*, 3> argv{words[0].data(), words[1].data(), words[2].data()};
    fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());
    fuse_session* const session =
        fuse_session_new(&arguments, &operations, sizeof operations, userData);
    fuse_opt_free_args(&arguments);
    if (session == nullptr) return nullptr;
    if (fuse_session_mount(session, mountPoint.c_str()) != 0) {
        fuse_session_destroy(session);
        return nullptr;
    }
    return FuseSession(session);
}

std::string fuseOptionValue(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == ',' || c == '\\') result += '\\';
        result += c;
    }
    return result;
}
