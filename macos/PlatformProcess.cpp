#include "Quillvane/Platform.h"

#include "Quillvane/FileDescriptor.h"

#include <cerrno>
#include <crt_externs.h>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <system_error>
#include <unistd.h>

namespace Platform {
namespace {

/// Moved above the standard streams, should our own be closed: there it would be taken for the
/// child's stream, or be overwritten by it.
int duplicate(int fd) {
    constexpr int firstFreeDescriptor = 3;
    const FileDescriptor original(fd);
    return ::fcntl(fd, F_DUPFD_CLOEXEC, firstFreeDescriptor);
}

/// 0 or an errno, as all of these functions return it.
int prepare(posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes,
            const Launch& request) {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    // The last flag closes everything that the actions below do not pass on.
    int error = posix_spawnattr_setflags(&attributes,
                                         POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_CLOEXEC_DEFAULT);
    if (error == 0) error = posix_spawnattr_setpgroup(&attributes, 0);
    if (error == 0) error = posix_spawnattr_setsigdefault(&attributes, &all);
    if (error == 0) error = posix_spawnattr_setsigmask(&attributes, &none);
    const int streams[] = {request.standardInput, request.standardOutput, request.standardError};
    for (int stream = 0; stream < 3 && error == 0; ++stream)
        error = streams[stream] >= 0
                    ? posix_spawn_file_actions_adddup2(&actions, streams[stream], stream)
                    : posix_spawn_file_actions_addinherit_np(&actions, stream);
    return error;
}

} // namespace

Pipe makePipe() {
    int ends[2];
    if (::pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    FileDescriptor readEnd(duplicate(ends[0]));
    const int readError = errno;
    FileDescriptor writeEnd(duplicate(ends[1]));
    if (!readEnd || !writeEnd)
        throw std::system_error(readEnd ? errno : readError, std::generic_category(), "pipe");
    return {readEnd.release(), writeEnd.release()};
}

int launch(const Launch& request, pid_t& child) {
    std::string executable = request.executable.string();
    std::vector<std::string> words = request.arguments;
    std::vector<char*> argv{executable.data()};
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    int error = prepare(actions, attributes, request);
    if (error == 0)
        error = posix_spawn(&child, executable.c_str(), &actions, &attributes, argv.data(),
                            *_NSGetEnviron());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error;
}

} // namespace Platform
