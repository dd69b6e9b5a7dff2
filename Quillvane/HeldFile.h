#pragma once

#include "FileDescriptor.h"

#include <filesystem>

/// A file that is held since it was examined or made, so that another one that is put in its place
/// is not taken for it.
class HeldFile {
public:
    /// Holds none.
    HeldFile() = default;
    /// Throws `std::filesystem::filesystem_error` when the file cannot be opened for reading.
    explicit HeldFile(const std::filesystem::path& file);

    int fd() const noexcept { return fd_.get(); }
    /// True when `path` leads to this very file. Never true when none is held.
    bool isAt(const std::filesystem::path& path) const noexcept;

private:
    FileDescriptor fd_;
};
