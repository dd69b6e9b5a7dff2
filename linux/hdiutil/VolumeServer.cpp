#include "VolumeServer.h"

#include "FusePrivileges.h"
#include "ToolError.h"
#include "Unmount.h"
#include "VolumeControl.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

// A full disk may get room, a network file system may come back: what is in memory is worth the
// wait, which ends before a session manager loses patience.
constexpr int closeAttempts = 20;
constexpr auto closePause = 1s;

constexpr const char* mayBeLost = "what was written last may be lost";

std::string fuseOptions(const std::filesystem::path& imagePath, bool readOnly,
                        const MountOptions& options) {
    std::string text =
        "fsname=" + fuseOptionValue(imagePath.string()) + ",subtype=quillvane,default_permissions";
    text += options.setUserId ? ",suid" : ",nosuid";
    text += options.deviceFiles ? ",dev" : ",nodev";
    if (options.otherUsers) text += ",allow_other";
    if (readOnly) text += ",ro";
    return text;
}

/// Enough to read and decrypt on all processors of a small machine.
unsigned serverThreads() {
    return std::clamp(std::thread::hardware_concurrency(), 2U, 4U);
}

} // namespace

VolumeServer::VolumeServer(std::unique_ptr<EncryptedImage> image,
                           std::unique_ptr<Ext4Volume> volume, MountPlace place,
                           const ImageFile& file, const MountOptions& options)
    : image_(std::move(image)), volume_(std::move(volume)), place_(std::move(place)) {
    try {
        mount(file, options);
        place_.mounted();
    } catch (...) {
        session_.reset();
        unmountLeftOver();
        place_.remove();
        throw;
    }
}

VolumeServer::~VolumeServer() {
    session_.reset();
    if (!mount_) return;
    unmountLeftOver();
    place_.remove();
}

void VolumeServer::mount(const ImageFile& file, const MountOptions& options) {
    socket_.emplace();
    context_.emplace(FuseOperations::Context{*volume_, socket_->address(), file.identity});
    session_ = mountFuse(place_.path(), fuseOptions(file.path, volume_->readOnly(), options),
                         FuseOperations::table(), &*context_);
    if (!session_ || !takeOverPrivileges(session_.get(), *volume_))
        throw ToolError("the volume could not be mounted at " + place_.path().string());
    mount_ = MountTable::current().at(place_.path());
    const bool found = mount_ && mount_->type == MountTable::volumeType && mount_->isOwn();
    if (!found || !place_.isAt(mount_->mountPoint))
        throw ToolError("the volume did not appear at " + place_.path().string());
}

Attachment VolumeServer::attachment() const {
    return {mount_->deviceName(), mount_->mountPoint};
}

bool VolumeServer::run(const BlockedSignals& signals) {
    std::string problem;
    {
        FuseLoop loop(session_.get(), serverThreads(), [this] { return volume_->syncTakesLong(); });
        // In a place that nobody sees there is only what is elsewhere, too.
        const int needed = place_.isShown() ? image_->fd() : -1;
        VolumeControl control(*volume_, loop, *socket_, signals, *mount_, needed);
        const FuseLoop::End end = loop.run();
        if (end == FuseLoop::End::failed) unmountLeftOver();
        // Whoever still has a file open gets errors from here on, and nobody waits for an answer.
        session_.reset();
        control.stop();
        problem = closeVolume();
        if (problem.empty() && control.forcedAfterFailure()) problem = mayBeLost;
        volume_.reset();
        unmountLeftOver();
        mount_.reset();
        place_.remove();
        image_.reset();
        control.answerWaiting(problem.empty() ? replyOk : replyFailed + problem);
    }
    return problem.empty();
}

// A connection that was aborted leaves its mount behind.
void VolumeServer::unmountLeftOver() const noexcept {
    try {
        if (mount_) unmountEverywhere(*mount_, true);
    } catch (const std::exception&) {
        // A dead mount stays, and the next attach or detach takes it away.
    }
}

// Answers what went wrong; nothing when all is on the disk.
std::string VolumeServer::closeVolume() noexcept {
    std::string problem;
    for (int attempt = 0; attempt < closeAttempts; ++attempt) {
        if (attempt > 0) std::this_thread::sleep_for(closePause);
        try {
            volume_->close();
            return volume_->lostContents() ? mayBeLost : "";
        } catch (const std::exception& error) {
            problem = error.what();
        }
    }
    return problem;
}
