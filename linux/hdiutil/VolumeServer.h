#pragma once

#include "Arguments.h"
#include "AttachReport.h"
#include "BlockedSignals.h"
#include "ControlSocket.h"
#include "EncryptedImage.h"
#include "Ext4Volume.h"
#include "FuseLoop.h"
#include "FuseOperations.h"
#include "FuseSession.h"
#include "ImageFile.h"
#include "MountPlace.h"
#include "linux/MountTable.h"

#include <memory>
#include <optional>
#include <string>

/// Holds a volume mounted until it is detached, unmounted or the process gets a signal.
class VolumeServer {
public:
    /// Mounts the volume at `place`; the mount table shows the path of `file` as its source, and
    /// the volume tells the identity to who asks for it. Programs that use it wait until `run` is
    /// called. Throws `ToolError` or `std::system_error`; then nothing is mounted, and the place is
    /// removed.
    VolumeServer(std::unique_ptr<EncryptedImage> image, std::unique_ptr<Ext4Volume> volume,
                 MountPlace place, const ImageFile& file, const MountOptions& options);
    ~VolumeServer();
    VolumeServer(const VolumeServer&) = delete;
    VolumeServer& operator=(const VolumeServer&) = delete;

    Attachment attachment() const;
    /// Returns when the volume is closed, the place removed and the image free; false when the
    /// volume could not be closed properly. `signals` are blocked in this thread. Call once.
    bool run(const BlockedSignals& signals);

private:
    void mount(const ImageFile& file, const MountOptions& options);
    void unmountLeftOver() const noexcept;
    std::string closeVolume() noexcept;

    std::unique_ptr<EncryptedImage> image_;
    std::unique_ptr<Ext4Volume> volume_;
    MountPlace place_;
    std::optional<ControlSocket> socket_;
    std::optional<FuseOperations::Context> context_;
    FuseSession session_;
    std::optional<MountEntry> mount_; ///< while mounted, as far as this object knows
};
