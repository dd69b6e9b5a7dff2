#pragma once

#include "Quillvane/FileDescriptor.h"

#include <functional>
#include <mutex>
#include <optional>

struct fuse_buf;
struct fuse_session;

/// Serves a mounted session's requests until the file system is unmounted or `stop` is called.
///
/// One thread at a time waits for requests. What is answered at once it answers itself, so that a
/// program that asks one thing after the other meets a thread that is awake; before it turns to
/// something that moves much data or waits for the disk, it leaves the waiting to the next thread.
class FuseLoop {
public:
    /// `session` is mounted and outlives the loop; with more than one of `threads`, its operations
    /// are called from several threads at once. `syncTakesLong`, called on any of them, tells
    /// whether others had better not wait for a sync. Throws `std::system_error`.
    explicit FuseLoop(
        fuse_session* session, unsigned threads = 1,
        std::function<bool()> syncTakesLong = [] { return true; });
    ~FuseLoop();
    FuseLoop(const FuseLoop&) = delete;
    FuseLoop& operator=(const FuseLoop&) = delete;

    enum class End { unmounted, stopped, failed };
    /// Call once. The calling thread is one of the threads; the others inherit its signal mask.
    End run() noexcept;
    /// Makes `run` return once the requests that are already queued are answered. Any thread.
    void stop() noexcept;

private:
    void serve() noexcept;
    bool takesLong(const fuse_buf& buffer) const;
    int receive(fuse_buf& buffer) noexcept;
    int receiveSoon(fuse_buf& buffer) noexcept;
    void drain(fuse_buf& buffer) noexcept;

    fuse_session* session_;
    const unsigned threads_;
    const std::function<bool()> syncTakesLong_;
    FileDescriptor wake_;
    std::mutex waiting_; ///< held by the thread that waits for requests
    std::optional<End> end_;
};
