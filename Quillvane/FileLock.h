#pragma once

#include "FileDescriptor.h"

#include <filesystem>

/// A lock among processes that ends with its holder, however that ends: the kernel keeps it, and
/// the file itself means nothing. It is never removed, as somebody may be about to lock it.
class FileLock {
public:
    enum class State { held, heldElsewhere, unavailable };

    /// Tries to take the lock, making the file if it is not there. Never waits. `unavailable` when
    /// there is no place for the file or its file system knows no locks.
    explicit FileLock(const std::filesystem::path& file);

    State state() const noexcept { return state_; }

private:
    FileDescriptor fd_;
    State state_ = State::unavailable;
};
