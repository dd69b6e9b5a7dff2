#include "DetachCommand.h"

#include "ControlSocket.h"
#include "MountPlace.h"
#include "ToolError.h"
#include "Unmount.h"
#include "linux/MountTable.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr auto freeLimit = 60s;
constexpr auto freePause = 20ms;

FileDescriptor openProcess(pid_t pid) {
    return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

void awaitProcessEnd(const FileDescriptor& process) {
    pollfd waiting{process.get(), POLLIN, 0};
    while (::poll(&waiting, 1, -1) < 0) {
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    }
}

bool isImageFree(const std::filesystem::path& image) {
    const FileDescriptor fd(::open(image.c_str(), O_RDONLY | O_CLOEXEC));
    // Not there any more under this name: nobody can be kept out of it.
    if (!fd) return true;
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return ::fcntl(fd.get(), F_OFD_GETLK, &range) != 0 || range.l_type == F_UNLCK;
}

struct Server {
    ControlAddress address{};
    FileDescriptor process;
};

// None when the volume's root cannot be asked. Another user's is not, as he may let us wait.
std::optional<Server> findServer(const MountEntry& volume) {
    if (!volume.isOwn()) return std::nullopt;
    const FileDescriptor root(
        ::open(volume.mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ControlAddress address{};
    if (!root || ::ioctl(root.get(), controlAddressRequest, &address) != 0) return std::nullopt;
    address.socketName[sizeof address.socketName - 1] = '\0';
    FileDescriptor process = openProcess(address.pid);
    if (!process) return std::nullopt;
    return Server{address, std::move(process)};
}

// Without the server's help: it notices the unmount by itself, and frees the image at its end.
void detachDirectly(const MountEntry& volume, bool force) {
    try {
        unmountEverywhere(volume, force);
    } catch (const std::system_error& error) {
        if (error.code().value() == EBUSY) throw VolumeBusy(volume.mountPoint.string());
        throw ToolError::fromErrno(error.code().value());
    }
    const auto deadline = std::chrono::steady_clock::now() + freeLimit;
    while (!isImageFree(volume.source)) {
        if (std::chrono::steady_clock::now() > deadline)
            throw ToolError("the volume's server does not end");
        std::this_thread::sleep_for(freePause);
    }
}

// False when the server cannot be reached by its socket.
bool detachByServer(const MountEntry& volume, const Server& server, bool force) {
    FileDescriptor connection;
    try {
        connection = connectControl(server.address);
    } catch (const std::system_error&) {
        return false; // another network namespace, or another user's server
    }
    if (!sendPacket(connection.get(), force ? requestDetachForce : requestDetach)) return false;
    const std::string reply = receivePacket(connection.get()).value_or("");
    if (reply == replyBusy) throw VolumeBusy(volume.mountPoint.string());
    if (reply.starts_with(replyFailed))
        throw ToolError(reply.substr(std::string(replyFailed).size()));
    // A server that ended without an answer may not have written everything.
    if (reply != replyOk) throw ToolError("the volume's server ended unexpectedly");
    awaitProcessEnd(server.process);
    return true;
}

} // namespace

void runDetach(const DetachArguments& arguments) {
    const auto volume = MountTable::current().volume(arguments.target);
    if (!volume) {
        removeDeadMounts();
        throw ToolError::fromErrno(ENOENT);
    }
    if (isDeadMount(*volume)) {
        // Nobody has seen it closed, and what it had not written yet is lost.
        if (!arguments.force) throw ToolError("the volume's server has died");
        removeDeadMount(volume->mountPoint);
        return;
    }
    const auto server = findServer(*volume);
    if (!server || !detachByServer(*volume, *server, arguments.force))
        detachDirectly(*volume, arguments.force);
}
