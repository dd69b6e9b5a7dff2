#pragma once

struct fuse_session;
class Ext4Volume;

/// Lets the volume alone take the set-user-id and set-group-id bits and the capabilities from files
/// that are written, so that the kernel need not ask for "security.capability" before every write;
/// the kernel is told of files that have lost bits. libfuse 3.14 has no name for this: it is
/// FUSE_HANDLE_KILLPRIV_V2 of linux/fuse.h. Kernels that do not know it go on as before.
///
/// To be called when the session is mounted and no request has been answered. The volume must not
/// be written to any more once the session is gone. False when memory is short.
bool takeOverPrivileges(fuse_session* session, Ext4Volume& volume);
