#pragma once

#include "BlockedSignals.h"
#include "ControlSocket.h"
#include "Ext4Volume.h"
#include "FuseLoop.h"
#include "linux/MountTable.h"

#include <string>
#include <thread>
#include <vector>

/// What a volume's server does beside answering the file system's requests, on a thread of its
/// own: it writes changes behind, and ends the volume when `detach` or a signal asks for it.
///
/// It never closes the volume. Ending means: everything is on the disk, the mount is taken away,
/// and `FuseLoop::run` returns.
class VolumeControl {
public:
    /// All are used until `stop` has returned. `mount` may have moved by any time later. When the
    /// open file `neededImage` has been deleted, `detach` is refused; -1 for none.
    VolumeControl(Ext4Volume& volume, FuseLoop& loop, const ControlSocket& socket,
                  const BlockedSignals& signals, MountEntry mount, int neededImage);
    ~VolumeControl();
    VolumeControl(const VolumeControl&) = delete;
    VolumeControl& operator=(const VolumeControl&) = delete;

    /// Call when the loop has ended and its connection is closed; the thread has ended then.
    void stop() noexcept;
    /// True when the end was forced after it had failed because the volume could not be written:
    /// who forces it at once may not have looked why. Call after `stop`.
    bool forcedAfterFailure() const noexcept { return forcedAfterFailure_; }
    /// Answers those who asked for the end. Call after `stop`, when the image is free.
    void answerWaiting(const std::string& reply) noexcept;

private:
    void run() noexcept;
    void serve(FileDescriptor client) noexcept;
    std::string end(bool force);
    void endBySignal() noexcept;
    void syncAll();
    void writeBehind() noexcept;
    void awaitLoopEnd() noexcept;

    Ext4Volume& volume_;
    FuseLoop& loop_;
    const ControlSocket& socket_;
    const BlockedSignals& signals_;
    const MountEntry mount_; ///< as it was at first; look up where it is
    const int neededImage_;
    FileDescriptor stopped_;
    std::vector<FileDescriptor> waiting_;
    bool ending_ = false;
    bool syncFailed_ = false;
    bool forcedAfterFailure_ = false;
    std::thread thread_;
};
