#pragma once

#include "ControlProtocol.h"
#include "Ext4Volume.h"

#include <fuse_lowlevel.h>

/// The kernel's requests, answered by an `Ext4Volume`.
namespace FuseOperations {

/// The session's user data. Both outlive the session.
struct Context {
    Ext4Volume& volume;
    /// What the ioctls on the root directory answer.
    ControlAddress control;
    ImageIdentity image;
};

/// To be given to fuse_session_new with a `Context` as user data. Every callback turns a failure
/// into the errno that the caller of the system call gets.
const fuse_lowlevel_ops& table();

} // namespace FuseOperations
