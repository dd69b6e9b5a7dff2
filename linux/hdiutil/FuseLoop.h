#pragma once

#include "Quillvane/FileDescriptor.h"

struct fuse_session;

/// Serves a mounted session's requests on one thread until the file system is unmounted or
/// `stop` is called.
class FuseLoop {
public:
    /// `session` is mounted and outlives the loop. Throws `std::system_error`.
    explicit FuseLoop(fuse_session* session);

    enum class End { unmounted, stopped, failed };
    /// Call once.
    End run() noexcept;
    /// Makes `run` return once the requests that are already queued are answered. Any thread.
    void stop() noexcept;

private:
    void drain(struct fuse_buf& buffer) noexcept;

    fuse_session* session_;
    FileDescriptor wake_;
};
