#include "Supervisor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

std::string escaped(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string result;
    for (const char c : text) {
        if (c > ' ' && c < '\x7f' && c != '\\') {
            result += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        result += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    }
    return result;
}

} // namespace

Supervisor::Supervisor(Confinement& confinement, std::string directory, const Fault& fault,
                       const Limits& limits, std::ostream& log)
    : confinement_(confinement), directory_(std::move(directory)), fault_(fault), limits_(limits),
      log_(log), deadline_(Clock::now() + limits.all) {}

void Supervisor::run() {
    while (!finished()) waitForEvent();
    confinement_.kill();
    writeEnd();
}

bool Supervisor::finished() const {
    if (stopped_ || alone_) return true;
    if (Clock::now() < deadline_) return false;
    if (!status_) throw std::runtime_error("the command takes too long");
    return true;
}

void Supervisor::waitForEvent() {
    std::array<pollfd, 2> waiting{
        {{confinement_.messages(), POLLIN, 0}, {confinement_.listener(), POLLIN, 0}}};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
    const int ready = ::poll(waiting.data(), waiting.size(),
                             static_cast<int>(std::max<std::int64_t>(0, left.count())));
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category());
    if (ready <= 0) return;
    if (waiting[1].revents & POLLIN)
        takeCall();
    else if (waiting[0].revents != 0)
        takeMessage();
}

void Supervisor::takeMessage() {
    using Kind = Confinement::Message::Kind;
    const auto message = confinement_.receive();
    if (!message) throw std::runtime_error("the first process has ended");
    switch (message->kind) {
    case Kind::failed:
        throw std::runtime_error("an earlier command than the last has failed");
    case Kind::lastBegins:
        counting_ = true;
        confinement_.proceed();
        return;
    case Kind::ended:
        status_ = message->status;
        deadline_ = std::min(deadline_, Clock::now() + limits_.settling);
        return;
    case Kind::alone:
        alone_ = true;
        return;
    }
}

void Supervisor::takeCall() {
    seccomp_notif request{};
    if (::ioctl(confinement_.listener(), SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
        if (errno == EINTR || errno == ENOENT) return; // its caller was killed meanwhile
        throw std::system_error(errno, std::generic_category(), "no system call to take");
    }
    const Call& call = callOf(request.data.nr);
    const Observation observation = Observation::of(request, call, directory_);
    requireSeen(request, call, observation);
    if (!changesDirectory(request, call, observation)) return answer(request.id, 0);
    const std::string program = programOf(static_cast<pid_t>(request.pid));
    record(program, call, observation);
    const bool now = isFaultAt(program);
    stopped_ = now && fault_.kind == Fault::Kind::stop;
    if (now && fault_.kind == Fault::Kind::meanwhile) runMeanwhile();
    if (now && fault_.kind == Fault::Kind::kill)
        ::kill(static_cast<pid_t>(request.pid), SIGKILL);
    else if (!stopped_)
        answer(request.id, fails(call, now) ? fault_.error : 0);
}

bool Supervisor::changesDirectory(const seccomp_notif& request, const Call& call,
                                  const Observation& observation) const {
    if (!counting_ || observation.elsewhere || call.effect == Effect::map) return false;
    return call.effect != Effect::control || changesDisk(request.data.args[1]);
}

void Supervisor::requireSeen(const seccomp_notif& request, const Call& call,
                             const Observation& observation) const {
    const auto process = static_cast<pid_t>(request.pid);
    if (call.effect == Effect::unseen)
        throw std::runtime_error(programOf(process) + " uses " + call.name +
                                 ", which hides what is written");
    constexpr int descriptor = 4;
    if (call.effect == Effect::map && observation.place == "disk" &&
        isWritable(process, static_cast<int>(request.data.args[descriptor])))
        throw std::runtime_error(programOf(process) + " maps " + observation.path +
                                 " for writing, which hides what is written");
}

void Supervisor::record(const std::string& program, const Call& call,
                        const Observation& observation) {
    log_ << ++count_ << '\t' << escaped(program) << '\t' << call.name << '\t' << observation.place
         << '\t' << escaped(observation.path);
    if (call.second.given()) log_ << '\t' << escaped(observation.secondPath);
    log_ << '\n';
}

bool Supervisor::isFaultAt(const std::string& program) {
    if (!fault_.program.empty() && fault_.program != program) return false;
    return ++faultCount_ == fault_.at;
}

bool Supervisor::fails(const Call& call, bool now) const {
    if (fault_.kind == Fault::Kind::error) return now;
    if (fault_.kind != Fault::Kind::errors || faultCount_ < fault_.at) return false;
    return fault_.error != ENOSPC || call.effect == Effect::grow;
}

/// Waits only so long: the program may in turn wait for the one whose call this is.
void Supervisor::runMeanwhile() const {
    constexpr std::chrono::milliseconds pause{2};
    constexpr int mostPauses = 250;
    std::array<char*, 2> arguments{const_cast<char*>(fault_.meanwhile.c_str()), nullptr};
    pid_t process = -1;
    const int error =
        ::posix_spawn(&process, arguments[0], nullptr, nullptr, arguments.data(), environ);
    if (error != 0) throw std::system_error(error, std::generic_category(), fault_.meanwhile);
    for (int i = 0; i < mostPauses && ::waitpid(process, nullptr, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(pause);
}

void Supervisor::answer(std::uint64_t id, int error) const {
    seccomp_notif_resp response{};
    response.id = id;
    response.error = -error;
    response.flags = error == 0 ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
    if (::ioctl(confinement_.listener(), SECCOMP_IOCTL_NOTIF_SEND, &response) != 0 &&
        errno != ENOENT) // its caller was killed meanwhile
        throw std::system_error(errno, std::generic_category(), "cannot answer a system call");
}

void Supervisor::writeEnd() {
    if (stopped_) {
        log_ << "=\tstopped\n" << std::flush;
        return;
    }
    const bool exited = WIFEXITED(*status_);
    log_ << "=\t" << (exited ? "exited\t" : "killed\t")
         << (exited ? WEXITSTATUS(*status_) : WTERMSIG(*status_)) << '\t'
         << (alone_ ? "alone" : "attended") << '\n'
         << std::flush;
}
