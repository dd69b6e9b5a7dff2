#include "Quillvane/ProcessRunner.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

ProcessResult shell(const std::string& script,
                    std::optional<std::span<const std::uint8_t>> standardInput = std::nullopt,
                    Cancellation* cancellation = nullptr) {
    return ProcessRunner::run("/bin/sh", {"-c", script}, standardInput, cancellation);
}

std::vector<std::uint8_t> patterned(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 31 >> 3);
    return bytes;
}

TEST(ProcessRunner, PassesArgumentsVerbatim) {
    const ProcessResult result =
        ProcessRunner::run("/usr/bin/printf", {"%s|", "a b", "$HOME", "*", "", "'\"\\", "é\n"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.standardOutput, "a b|$HOME|*||'\"\\|é\n|");
}

TEST(ProcessRunner, SeparatesTheStreamsAndReturnsFailures) {
    const ProcessResult result = shell("echo out; echo err >&2; exit 1");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.standardOutput, "out\n");
    EXPECT_EQ(result.standardError, "err\n");
}

TEST(ProcessRunner, FeedsStandardInputWholeAndClosesIt) {
    const auto input = patterned(300'000);
    const ProcessResult result = ProcessRunner::run("/bin/cat", {}, input);
    EXPECT_TRUE(std::ranges::equal(result.standardOutput, input, {},
                                   [](char c) { return static_cast<std::uint8_t>(c); }));
    EXPECT_EQ(ProcessRunner::run("/bin/cat", {}, std::span<const std::uint8_t>()).standardOutput,
              "");
}

TEST(ProcessRunner, NeverDeadlocksOnLargeOutput) {
    const ProcessResult result =
        shell("head -c 1000000 /dev/zero; head -c 1000000 /dev/zero >&2; cat > /dev/null",
              patterned(200'000));
    EXPECT_EQ(result.standardOutput.size(), 1'000'000U);
    EXPECT_EQ(result.standardError.size(), 1'000'000U);
}

TEST(ProcessRunner, IgnoresThatAToolDoesNotReadItsInput) {
    EXPECT_EQ(shell("exec <&-; exit 3", patterned(1'000'000)).exitCode, 3);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST(ProcessRunner, TellsTheSignalThatEndedTheTool) {
    EXPECT_EQ(shell("kill -9 $$").exitCode, SIGKILL);
}

TEST(ProcessRunner, DecodesIllFormedTextWithReplacements) {
    const ProcessResult result = shell(R"(printf ' a\377b\303\n'; printf '\342\202' >&2)");
    EXPECT_EQ(result.stdoutString(), " a\uFFFDb\uFFFD\n");
    EXPECT_EQ(result.stderrString(), "\uFFFD");
    EXPECT_EQ(result.standardOutput, " a\xff"
                                     "b\xc3\n");
}

TEST(ProcessRunner, TellsWhatCannotBeLaunched) {
    const auto start = Clock::now();
    try {
        ProcessRunner::run("/nowhere/hdiutil", {});
        FAIL() << "launched";
    } catch (const ProcessLaunchError& error) {
        EXPECT_EQ(error.tool(), "hdiutil");
        EXPECT_EQ(error.underlying(), "No such file or directory");
        EXPECT_EQ(error.errorDescription(), "Couldn't launch hdiutil. No such file or directory");
    }
    EXPECT_GE(Clock::now() - start, 80ms);
}

TEST(ProcessRunner, TellsWhatMayNotBeLaunched) {
    const TemporaryFolder folder;
    writeFile(folder / "tool", "#!/bin/sh\n");
    try {
        ProcessRunner::run(folder / "tool", {});
        FAIL() << "launched";
    } catch (const ProcessLaunchError& error) {
        EXPECT_EQ(error.underlying(), "Permission denied");
    }
}

TEST(ProcessRunner, TriesALaunchOnceMore) {
    const TemporaryFolder folder;
    writeFile(folder / "late", "#!/bin/sh\necho here\n");
    std::thread installer([&] {
        std::this_thread::sleep_for(20ms);
        fs::permissions(folder / "late", fs::perms::owner_all);
    });
    EXPECT_EQ(ProcessRunner::run(folder / "late", {}).standardOutput, "here\n");
    installer.join();
}

TEST(ProcessRunner, ThereIsNoThirdAttempt) {
    int attempts = 0;
    const auto start = Clock::now();
    EXPECT_THROW(ProcessRunner::retryingLaunch([&] {
                     ++attempts;
                     throw ProcessLaunchError("tool", "reason");
                 }),
                 ProcessLaunchError);
    EXPECT_EQ(attempts, 2);
    EXPECT_GE(Clock::now() - start, 80ms);
}

TEST(ProcessRunner, OtherFailuresAreNotTriedAgain) {
    int attempts = 0;
    EXPECT_THROW(ProcessRunner::retryingLaunch([&] {
                     ++attempts;
                     throw std::runtime_error("other");
                 }),
                 std::runtime_error);
    EXPECT_EQ(attempts, 1);
}

TEST(ProcessRunner, StartsToolsInAGroupOfTheirOwnWithCleanSignals) {
    static_cast<void>(std::signal(SIGINT, SIG_IGN));
    sigset_t blocked;
    sigset_t former;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &former);
    const ProcessResult status =
        ProcessRunner::run("/bin/grep", {"-E", "^Sig(Blk|Ign)", "/proc/self/status"});
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    static_cast<void>(std::signal(SIGINT, SIG_DFL));
    std::istringstream lines(status.standardOutput);
    std::string label;
    std::uint64_t signals = 0;
    lines >> label >> std::hex >> signals;
    EXPECT_EQ(signals, 0U) << label;
    lines >> label >> std::hex >> signals;
    constexpr std::uint64_t standardSignals = 0x7FFFFFFF; // the C library keeps two more for itself
    EXPECT_EQ(signals & standardSignals, 0U) << label;

    std::istringstream stat(ProcessRunner::run("/bin/cat", {"/proc/self/stat"}).standardOutput);
    std::string name;
    std::string state;
    pid_t process = 0;
    pid_t parent = 0;
    pid_t group = 0;
    stat >> process >> name >> state >> parent >> group;
    EXPECT_EQ(group, process);
    EXPECT_EQ(parent, ::getpid());
}

TEST(ProcessRunner, PassesNoOtherDescriptorsOn) {
    const int inheritable = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(inheritable, 3);
    const ProcessResult result =
        ProcessRunner::run("/bin/ls", {"/proc/self/fd"}, std::span<const std::uint8_t>());
    ::close(inheritable);
    EXPECT_EQ(result.standardOutput, "0\n1\n2\n3\n") << "3 is the listing's own";
}

TEST(ProcessRunner, LeavesNoDescriptorsOpen) {
    const auto count = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = count();
    shell("echo", patterned(10));
    EXPECT_THROW(ProcessRunner::run("/nowhere", {}), ProcessLaunchError);
    EXPECT_EQ(count(), before);
}

TEST(ProcessRunner, WorksWithoutStandardStreamsOfItsOwn) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int fd : {0, 1, 2}) ::close(fd);
        const std::vector<std::uint8_t> input{'i', 'n'};
        const ProcessResult result = shell("cat; echo err >&2", input);
        ::_exit(result.standardOutput == "in" && result.standardError == "err\n" ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(ProcessRunner, RunsSeveralToolsAtATime) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    std::atomic<int> right{0};
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&right, i] {
            const std::string number = std::to_string(i);
            if (shell("cat; sleep 0.05; echo " + number, patterned(5))
                    .standardOutput.ends_with(number + "\n"))
                ++right;
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, 8);
}

TEST(Cancellation, EndsARunningTool) {
    Cancellation cancellation;
    std::thread canceller([&] {
        std::this_thread::sleep_for(50ms);
        cancellation.request();
    });
    const auto start = Clock::now();
    EXPECT_EQ(shell("exec sleep 60", std::nullopt, &cancellation).exitCode, SIGTERM);
    EXPECT_LT(Clock::now() - start, 30s);
    canceller.join();
}

TEST(Cancellation, ThatCameFirstEndsTheToolAtOnce) {
    Cancellation cancellation;
    cancellation.request();
    EXPECT_TRUE(cancellation.requested());
    EXPECT_EQ(shell("exec sleep 60", std::nullopt, &cancellation).exitCode, SIGTERM);
}

TEST(Cancellation, MayComeFromASignalHandler) {
    static Cancellation cancellation;
    static_cast<void>(std::signal(SIGALRM, [](int) { cancellation.request(); }));
    const itimerval soon{{0, 0}, {0, 50'000}};
    ::setitimer(ITIMER_REAL, &soon, nullptr);
    EXPECT_EQ(shell("exec sleep 60", std::nullopt, &cancellation).exitCode, SIGTERM);
    static_cast<void>(std::signal(SIGALRM, SIG_DFL));
}

TEST(Cancellation, MeetsTheToolsEndAtAnyMoment) {
    for (int i = 0; i < 40; ++i) {
        Cancellation cancellation;
        std::thread canceller([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 100));
            cancellation.request();
        });
        const std::int32_t exitCode = shell("exit 0", std::nullopt, &cancellation).exitCode;
        EXPECT_TRUE(exitCode == 0 || exitCode == SIGTERM) << exitCode;
        canceller.join();
    }
}

} // namespace
