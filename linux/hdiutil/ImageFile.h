#pragma once

#include "ControlProtocol.h"
#include "Quillvane/FileDescriptor.h"

#include <filesystem>

/// An image opened for use, and locked against a second use as long as the descriptor or a
/// duplicate of it is open.
struct ImageFile {
    FileDescriptor fd;
    std::filesystem::path path; ///< absolute, without symbolic links
    ImageIdentity identity{};   ///< of the file, whatever its name becomes
    bool readOnly = false;      ///< the file or its file system does not allow writing
};

/// Waits up to a second for one that is in use. Throws `ToolError` when it cannot be opened, is no
/// regular file, or stays in use.
ImageFile openImage(const std::filesystem::path& path);

/// Whether no name leads to the open image any more: it was deleted, or another file was renamed to
/// its name. Network drives may keep a name of their own for it.
bool isDeleted(int image) noexcept;

/// A new image that is deleted again unless it is kept.
class NewImageFile {
public:
    /// Throws `ToolError`, also when the name is taken.
    explicit NewImageFile(const std::filesystem::path& path);
    ~NewImageFile();
    NewImageFile(const NewImageFile&) = delete;
    NewImageFile& operator=(const NewImageFile&) = delete;

    int fd() const noexcept { return fd_.get(); }
    /// Returns when the file's name is on the disk. Throws `std::system_error`.
    void keep();

private:
    std::filesystem::path path_;
    FileDescriptor fd_;
    bool kept_ = false;
};
