#pragma once

#include "linux/ditto/FileDescriptor.h"
#include "linux/ditto/Status.h"

#include <cstddef>
#include <memory>
#include <vector>

/// The open directories on the way from a root down to the directory being worked on.
///
/// Every step is relative to the directory above it, so neither the length of the path nor an
/// exchanged component above matters. Only the deepest few directories stay open; one above them
/// is opened again through ".." and must then be the same directory as before.
class DirectoryChain {
public:
    /// An open directory, which stays open at least as long as the handle lives.
    using Handle = std::shared_ptr<const FileDescriptor>;

    /// `root` is borrowed for the call. Throws FileError.
    DirectoryChain(Side side, int root);

    int fd() const noexcept { return levels_.back().handle->get(); }
    Handle handle() const noexcept { return levels_.back().handle; }
    /// The status of the deepest directory as it was when it was opened.
    const Status& status() const noexcept { return levels_.back().status; }
    /// Opens the directory `name` below the deepest one. Throws FileError; nothing has changed
    /// then.
    void descend(const char* name);
    /// Goes back to the directory above; not to be called for the root. Throws FileError or, when
    /// the directory was moved elsewhere, Difference.
    void ascend();

private:
    static constexpr std::size_t openLevels = 32;

    struct Level {
        Handle handle; ///< empty when it was closed in favour of deeper ones
        Status status;
    };

    Side side_;
    std::vector<Level> levels_;
};
