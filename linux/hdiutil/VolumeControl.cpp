#include "VolumeControl.h"

#include "ImageFile.h"
#include "ToolError.h"
#include "Unmount.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace {

constexpr std::chrono::seconds writeBehindPause{5};
// The kernel ends the connection right after an unmount, unless the volume is also mounted in
// another namespace; the server does not wait for that one.
constexpr int unmountMilliseconds = 2000;
constexpr int mostAtOnce = 8; // callers that ask for the end

bool readable(int fd, int milliseconds) {
    pollfd waiting{fd, POLLIN, 0};
    return ::poll(&waiting, 1, milliseconds) > 0;
}

} // namespace

VolumeControl::VolumeControl(Ext4Volume& volume, FuseLoop& loop, const ControlSocket& socket,
                             const BlockedSignals& signals, MountEntry mount, int neededImage)
    : volume_(volume), loop_(loop), socket_(socket), signals_(signals), mount_(std::move(mount)),
      neededImage_(neededImage), stopped_(::eventfd(0, EFD_CLOEXEC)) {
    if (!stopped_) throw std::system_error(errno, std::generic_category(), "eventfd");
    thread_ = std::thread([this] { run(); });
}

VolumeControl::~VolumeControl() {
    stop();
}

void VolumeControl::stop() noexcept {
    if (!thread_.joinable()) return;
    (void)::eventfd_write(stopped_.get(), 1);
    thread_.join();
}

void VolumeControl::answerWaiting(const std::string& reply) noexcept {
    for (const FileDescriptor& client : waiting_) sendPacket(client.get(), reply);
    waiting_.clear();
}

void VolumeControl::run() noexcept {
    using Clock = std::chrono::steady_clock;
    auto nextWriting = Clock::now() + writeBehindPause;
    while (!ending_) {
        // By the clock, so that nobody who calls again and again keeps it from being done.
        if (Clock::now() >= nextWriting) {
            writeBehind();
            nextWriting = Clock::now() + writeBehindPause;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextWriting - Clock::now());
        std::array<pollfd, 3> waiting{
            {{stopped_.get(), POLLIN, 0}, {signals_.fd(), POLLIN, 0}, {socket_.fd(), POLLIN, 0}}};
        const int ready = ::poll(waiting.data(), waiting.size(),
                                 static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready < 0 && errno != EINTR) return;
        if (ready <= 0) continue;
        if (waiting[0].revents != 0) return;
        if (waiting[1].revents != 0)
            endBySignal();
        else if (waiting[2].revents != 0)
            serve(socket_.accept());
    }
    // Who has asked for the same meanwhile gets the same answer.
    for (int i = 0; i < mostAtOnce && readable(socket_.fd(), 0); ++i)
        if (FileDescriptor client = socket_.accept()) waiting_.push_back(std::move(client));
    awaitLoopEnd();
}

void VolumeControl::serve(FileDescriptor client) noexcept {
    if (!client) return;
    const auto request = receivePacket(client.get());
    if (request != requestDetach && request != requestDetachForce) return;
    std::string reply;
    try {
        reply = end(request == requestDetachForce);
    } catch (const std::exception& error) {
        reply = std::string(replyFailed) + error.what();
    }
    if (ending_)
        waiting_.push_back(std::move(client));
    else
        sendPacket(client.get(), reply);
}

// Answers what to reply when the volume stays; sets `ending_` when it goes.
std::string VolumeControl::end(bool force) {
    // A volume whose contents cannot be written stays, even when forced: what it holds in memory
    // would be lost. So would everything in one whose image has no name any more.
    if (neededImage_ >= 0 && isDeleted(neededImage_))
        throw ToolError("its file has been deleted or replaced, and closing the volume would lose "
                        "what is in it: copy what you need out of it");
    try {
        syncAll();
    } catch (...) {
        syncFailed_ = true;
        throw;
    }
    try {
        unmountEverywhere(mount_, force);
    } catch (const std::system_error& error) {
        if (error.code().value() == EBUSY) return replyBusy;
        throw;
    }
    ending_ = true;
    forcedAfterFailure_ = force && syncFailed_;
    if (force) loop_.stop();
    return replyOk;
}

void VolumeControl::endBySignal() noexcept {
    try {
        syncAll();
    } catch (const std::exception&) {
        // The session ends whatever we do; closing the volume tries again.
    }
    try {
        unmountEverywhere(mount_, true);
    } catch (const std::exception&) {
        // The session ends whatever we do. What is left is a dead mount, and the next attach or
        // detach takes it away.
    }
    ending_ = true;
    loop_.stop();
}

void VolumeControl::syncAll() {
    // First what programs have written into mapped files and the kernel has not passed on yet. The
    // requests that this makes are answered by the loop, on its own thread.
    for (const MountEntry& mount : MountTable::current().mountsOf(mount_)) {
        const FileDescriptor directory(
            ::open(mount.mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct stat found {};
        const bool ours = directory && ::fstat(directory.get(), &found) == 0 &&
                          major(found.st_dev) == mount_.major &&
                          minor(found.st_dev) == mount_.minor;
        if (!ours) continue;
        if (::syncfs(directory.get()) != 0)
            throw std::system_error(errno, std::generic_category(),
                                    "the volume could not be written");
        break; // it wrote the whole file system
    }
    volume_.sync();
}

void VolumeControl::writeBehind() noexcept {
    try {
        volume_.writeBehind();
    } catch (const std::exception&) {
        // The volume remembers; the next sync, at the latest the one before the end, reports it.
    }
}

void VolumeControl::awaitLoopEnd() noexcept {
    if (!readable(stopped_.get(), unmountMilliseconds)) loop_.stop();
}
