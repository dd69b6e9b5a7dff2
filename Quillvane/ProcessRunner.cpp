#include "ProcessRunner.h"

#include "ErrorText.h"
#include "FileDescriptor.h"
#include "Platform.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <system_error>
#include <utility>

namespace ProcessRunner {
namespace {

constexpr std::size_t chunkBytes = 65536;

/// A pipe from the child, drained by a thread of its own so that the child never blocks on it.
class OutputPipe {
public:
    OutputPipe() : OutputPipe(Platform::makePipe()) {}
    ~OutputPipe() { finish(); }
    OutputPipe(const OutputPipe&) = delete;
    OutputPipe& operator=(const OutputPipe&) = delete;

    int writeEnd() const noexcept { return writeEnd_.get(); }
    /// To be called once the child has its copy, so that the reader sees the end of the stream.
    void closeWriteEnd() noexcept { writeEnd_.reset(); }
    /// Waits until the stream has ended.
    std::string finish() {
        closeWriteEnd();
        if (reader_.joinable()) reader_.join();
        return std::move(data_);
    }

private:
    explicit OutputPipe(Platform::Pipe pipe)
        : readEnd_(pipe.readEnd), writeEnd_(pipe.writeEnd), reader_([this] { readAll(); }) {}

    void readAll() {
        std::string chunk(chunkBytes, '\0');
        for (;;) {
            const ssize_t got = ::read(readEnd_.get(), chunk.data(), chunk.size());
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return; // a failure ends the stream; what was gathered counts
            data_.append(chunk, 0, static_cast<std::size_t>(got));
        }
    }

    FileDescriptor readEnd_;
    FileDescriptor writeEnd_;
    std::string data_;
    std::thread reader_; // last: it uses all of the above
};

/// While it lives, writing to a pipe that nobody reads is an error and not a signal.
class PipeSignalGuard {
public:
    PipeSignalGuard() {
        sigemptyset(&pipeSignal_);
        sigaddset(&pipeSignal_, SIGPIPE);
        wasPending_ = pending();
        pthread_sigmask(SIG_BLOCK, &pipeSignal_, &formerMask_);
    }
    ~PipeSignalGuard() {
        if (!wasPending_ && pending()) {
            int consumed = 0;
            sigwait(&pipeSignal_, &consumed);
        }
        pthread_sigmask(SIG_SETMASK, &formerMask_, nullptr);
    }
    PipeSignalGuard(const PipeSignalGuard&) = delete;
    PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;

private:
    static bool pending() {
        sigset_t signals;
        sigemptyset(&signals);
        sigpending(&signals);
        return sigismember(&signals, SIGPIPE) == 1;
    }

    sigset_t pipeSignal_{};
    sigset_t formerMask_{};
    bool wasPending_ = false;
};

/// Failures are ignored: a tool need not read its input.
void writeAll(int fd, std::span<const std::uint8_t> bytes) {
    const PipeSignalGuard guard;
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return;
        }
    }
}

std::int32_t waitForEnd(pid_t child, Cancellation* cancellation) {
    // Not reaped at first: the process number stays the child's while it may be signalled.
    siginfo_t info{};
    int outcome = 0;
    do outcome = ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    while (outcome != 0 && errno == EINTR);
    if (cancellation != nullptr) cancellation->watchChild(0);
    int status = 0;
    pid_t reaped = 0;
    do reaped = ::waitpid(child, &status, 0);
    while (reaped < 0 && errno == EINTR);
    if (reaped < 0) throw std::system_error(errno, std::generic_category(), "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
}

ProcessResult attempt(const std::filesystem::path& executablePath,
                      const std::vector<std::string>& arguments,
                      std::optional<std::span<const std::uint8_t>> standardInput,
                      Cancellation* cancellation) {
    const Platform::Pipe input = Platform::makePipe();
    FileDescriptor inputReadEnd(input.readEnd);
    FileDescriptor inputWriteEnd(input.writeEnd);
    OutputPipe output;
    OutputPipe errors;

    pid_t child = 0;
    const int failure = Platform::launch({.executable = executablePath,
                                          .arguments = arguments,
                                          .standardInput = standardInput ? input.readEnd : -1,
                                          .standardOutput = output.writeEnd(),
                                          .standardError = errors.writeEnd()},
                                         child);
    if (failure != 0)
        throw ProcessLaunchError(executablePath.filename().string(), systemErrorText(failure));

    inputReadEnd.reset();
    output.closeWriteEnd();
    errors.closeWriteEnd();
    if (cancellation != nullptr) cancellation->watchChild(child);
    if (standardInput) writeAll(inputWriteEnd.get(), *standardInput);
    inputWriteEnd.reset();

    ProcessResult result;
    result.exitCode = waitForEnd(child, cancellation);
    result.standardOutput = output.finish();
    result.standardError = errors.finish();
    return result;
}

} // namespace

ProcessResult run(const std::filesystem::path& executablePath,
                  const std::vector<std::string>& arguments,
                  std::optional<std::span<const std::uint8_t>> standardInput,
                  Cancellation* cancellation) {
    return retryingLaunch(
        [&] { return attempt(executablePath, arguments, standardInput, cancellation); });
}

} // namespace ProcessRunner
