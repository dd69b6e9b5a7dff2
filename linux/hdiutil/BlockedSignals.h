#pragma once

#include "Quillvane/FileDescriptor.h"

#include <csignal>

/// Keeps SIGINT, SIGTERM and SIGHUP from ending the process, so that it can clean up first.
///
/// Blocks them in the calling thread and in all threads that it starts afterwards; make it before
/// the first thread. Destroyed, it takes those that have come and restores the calling thread's
/// former mask: the process has dealt with them and ends by itself.
class BlockedSignals {
public:
    BlockedSignals();
    ~BlockedSignals();
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

    /// Readable when one of the signals has come.
    int fd() const noexcept { return fd_.get(); }
    bool pending() const noexcept;
    /// Throws `Interrupted` when one of the signals has come.
    void check() const;

private:
    sigset_t former_{};
    FileDescriptor fd_;
};
