#pragma once

#include "linux/ditto/Status.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

/// Moves and compares the bytes of regular files, holes as holes. Not thread-safe: it owns the
/// buffers. Large files of all threads take turns, so that a disk with heads reads and writes each
/// in one go.
class FileContents {
public:
    FileContents();
    ~FileContents();
    FileContents(const FileContents&) = delete;
    FileContents& operator=(const FileContents&) = delete;
    /// With buffers that are made once for each thread.
    static FileContents& ofThisThread();

    /// Writes the first `original.size` bytes of `source` to the new file `copy`. Space that was
    /// reserved behind the end is not. Throws FileError; Difference when the source is shorter.
    void copy(int source, int copy, const Status& original);

    /// Throws Difference unless both files, which are `original.size` bytes long, hold the same.
    /// Ranges that both files call holes are not read. A copy of some size is read past the
    /// system's cache where its file system can do that; it must have been synced.
    void compare(int source, int copy, const Status& original);

private:
    static constexpr std::size_t bufferSize = std::size_t{1} << 20;
    struct Buffer;
    class CopyReader;

    void copyRange(int source, int copy, std::uint64_t from, std::uint64_t to);
    void compareRange(int source, CopyReader& copy, std::uint64_t from, std::uint64_t to);

    std::unique_ptr<Buffer> first_;
    std::unique_ptr<Buffer> second_;
};
