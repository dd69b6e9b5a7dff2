#include "ChildProgram.h"

#include "ToolError.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {

constexpr std::size_t keptOutput = 16384;

class SpawnSetup {
public:
    explicit SpawnSetup(int output) {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
        // Signals that this process blocks or ignores must reach the program as usual.
        sigset_t none;
        sigemptyset(&none);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetup() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

pid_t start(const std::string& path, const std::vector<std::string>& arguments, int output) {
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::array<std::string, 2> variables{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
    std::array<char*, 3> environment{variables[0].data(), variables[1].data(), nullptr};

    SpawnSetup setup(output);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, path.c_str(), &setup.actions, &setup.attributes,
                                  argv.data(), environment.data());
    if (error != 0) throw std::system_error(error, std::generic_category(), path);
    return pid;
}

// Collects what the program writes until it has closed both streams. False: a signal came.
bool collect(int from, const BlockedSignals* signals, std::string& output) {
    std::array<char, 4096> buffer{};
    while (true) {
        std::array<pollfd, 2> waiting{
            {{from, POLLIN, 0}, {signals != nullptr ? signals->fd() : -1, POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return true;
        }
        if (waiting[1].revents != 0) return false;
        const ssize_t got = ::read(from, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        output.append(buffer.data(), static_cast<std::size_t>(got));
        if (output.size() > 2 * keptOutput) output.erase(0, output.size() - keptOutput);
    }
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const BlockedSignals* signals) {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t pid = start(path, arguments, writing.get());
    writing.reset();

    ProgramResult result;
    const bool ended = collect(reading.get(), signals, result.output);
    if (!ended) ::kill(pid, SIGKILL);
    result.status = waitFor(pid);
    if (!ended) throw Interrupted();
    return result;
}
