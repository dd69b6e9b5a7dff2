#pragma once

#include <unistd.h>

#include <utility>

/// Owns one open file descriptor. Destroying it closes without looking at the result; whoever has
/// written through the descriptor calls `close()` and looks.
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { close(); }

    int get() const noexcept { return fd_; }
    bool open() const noexcept { return fd_ >= 0; }
    /// False with errno when the file system reports a failure this late. Harmless when closed.
    bool close() noexcept {
        const int fd = std::exchange(fd_, -1);
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_ = -1;
};
