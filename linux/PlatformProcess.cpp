#include "Quillvane/Platform.h"

#include "Quillvane/FileDescriptor.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <system_error>
#include <unistd.h>

namespace Platform {
namespace {

constexpr int firstFreeDescriptor = 3;

/// Away from 0 to 2, should our own standard streams be closed: there it would be taken for the
/// child's stream, or be overwritten by it.
int aboveStandardStreams(int fd) {
    if (fd >= firstFreeDescriptor) return fd;
    const FileDescriptor low(fd);
    return ::fcntl(fd, F_DUPFD_CLOEXEC, firstFreeDescriptor);
}

struct SpawnSettings {
    SpawnSettings() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

/// 0 or an errno, as all of these functions return it.
int prepare(SpawnSettings& settings, const Launch& request) {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    int error = posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETPGROUP |
                                                                   POSIX_SPAWN_SETSIGDEF |
                                                                   POSIX_SPAWN_SETSIGMASK);
    if (error == 0) error = posix_spawnattr_setpgroup(&settings.attributes, 0);
    if (error == 0) error = posix_spawnattr_setsigdefault(&settings.attributes, &all);
    if (error == 0) error = posix_spawnattr_setsigmask(&settings.attributes, &none);
    const int streams[] = {request.standardInput, request.standardOutput, request.standardError};
    for (int stream = 0; stream < firstFreeDescriptor && error == 0; ++stream)
        if (streams[stream] >= 0)
            error = posix_spawn_file_actions_adddup2(&settings.actions, streams[stream], stream);
    if (error == 0)
        error = posix_spawn_file_actions_addclosefrom_np(&settings.actions, firstFreeDescriptor);
    return error;
}

} // namespace

Pipe makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    FileDescriptor readEnd(aboveStandardStreams(ends[0]));
    const int readError = errno;
    FileDescriptor writeEnd(aboveStandardStreams(ends[1]));
    if (!readEnd || !writeEnd)
        throw std::system_error(readEnd ? errno : readError, std::generic_category(), "pipe");
    return {readEnd.release(), writeEnd.release()};
}

int launch(const Launch& request, pid_t& child) {
    SpawnSettings settings;
    if (const int error = prepare(settings, request)) return error;
    std::string executable = request.executable.string();
    std::vector<std::string> words = request.arguments;
    std::vector<char*> argv{executable.data()};
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    return posix_spawn(&child, executable.c_str(), &settings.actions, &settings.attributes,
                       argv.data(), environ);
}

} // namespace Platform
