#pragma once

#include "EncryptedImage.h"

#include <filesystem>
#include <memory>

/// Shows the plaintext of an image as one file, so that e2fsprogs can work on it.
///
/// The file lies in a private mount in a directory that only the user can enter, and is served by
/// a thread of this object. Destroyed, mount and directory are gone, and everything written to the
/// file is in the image (not necessarily on the disk).
class PlaintextExport {
public:
    /// `image` outlives the export. Throws `ToolError` or `std::system_error`.
    explicit PlaintextExport(EncryptedImage& image);
    ~PlaintextExport();
    PlaintextExport(const PlaintextExport&) = delete;
    PlaintextExport& operator=(const PlaintextExport&) = delete;

    std::filesystem::path file() const;
    /// The errno of the first failure to read or write the image, 0 when there was none. Nothing is
    /// written after one.
    int failure() const noexcept;

private:
    class Mount;
    std::unique_ptr<Mount> mount_;
};
