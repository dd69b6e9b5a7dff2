#include "linux/ditto/FileContents.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

/// What offsets, lengths and buffers must be multiples of to be read past the cache from any disk.
constexpr std::size_t unit = 4096;
constexpr std::uint64_t largeFile = std::uint64_t{8} << 20;

/// Held while a large file is copied or compared.
std::unique_lock<std::mutex> turnFor(const Status& status) {
    static std::mutex turn;
    return status.size < largeFile ? std::unique_lock<std::mutex>() : std::unique_lock(turn);
}

/// Files below this size are searched for holes only when they hold fewer blocks than bytes.
constexpr std::uint64_t smallFile = std::uint64_t{1} << 16;

bool mayHaveHoles(const Status& status) {
    return status.size >= smallFile || status.blocks * 512 < status.size;
}

/// The next byte at or after `from` that is no hole, or `size` when there is none. A file system
/// that knows no holes answers EINVAL: then everything is data.
std::uint64_t nextData(Side side, int fd, std::uint64_t from, std::uint64_t size) {
    const off_t found = lseek(fd, static_cast<off_t>(from), SEEK_DATA);
    if (found >= 0) return std::min(static_cast<std::uint64_t>(found), size);
    if (errno == ENXIO) return size;
    if (errno == EINVAL || errno == ENOTSUP) return from;
    fail(side, "cannot be searched for holes");
}

std::uint64_t nextHole(Side side, int fd, std::uint64_t from, std::uint64_t size) {
    const off_t found = lseek(fd, static_cast<off_t>(from), SEEK_HOLE);
    if (found >= 0) return std::min(static_cast<std::uint64_t>(found), size);
    if (errno == EINVAL || errno == ENOTSUP) return size;
    // The file was cut off at or before `from`: copying on will find that out.
    if (errno == ENXIO) return size;
    fail(side, "cannot be searched for holes");
}

/// Fills `into` from `offset` on; answers fewer bytes only at the end of the file.
std::size_t readFully(Side side, int fd, std::span<std::byte> into, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < into.size()) {
        const ssize_t count =
            pread(fd, into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
        if (count == 0) break;
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            fail(side, side == Side::source ? "cannot be read" : "cannot be read back");
        }
    }
    return done;
}

void writeFully(int fd, std::span<const std::byte> from, std::uint64_t offset) {
    while (!from.empty()) {
        const ssize_t count = pwrite(fd, from.data(), from.size(), static_cast<off_t>(offset));
        if (count < 0) {
            if (errno == EINTR) continue;
            fail(Side::destination, "cannot be written");
        }
        from = from.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
}

} // namespace

struct alignas(unit) FileContents::Buffer {
    std::byte bytes[bufferSize];
};

/// Reads the copy past the system's cache, where its file system can do that: what is compared then
/// comes from there for certain, and no pages have to be made to be read once.
class FileContents::CopyReader {
public:
    CopyReader(int fd, std::uint64_t size) noexcept : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        direct_ = size >= worthwhile && flags_ >= 0 && fcntl(fd, F_SETFL, flags_ | O_DIRECT) == 0;
    }
    CopyReader(const CopyReader&) = delete;
    CopyReader& operator=(const CopyReader&) = delete;
    ~CopyReader() { useCache(); }

    /// As `readFully`; `into` lies at the start of a Buffer.
    std::size_t read(std::span<std::byte> into, std::uint64_t offset) {
        if (direct_ && offset % unit == 0) {
            const std::size_t units = (into.size() + unit - 1) / unit * unit;
            const ssize_t count = pread(fd_, into.data(), units, static_cast<off_t>(offset));
            if (count >= static_cast<ssize_t>(into.size())) return into.size();
            // The cache must not hide that the disk has lost what was written.
            if (count < 0 && errno != EINVAL && errno != EINTR)
                fail(Side::destination, "cannot be read back");
        }
        useCache(); // the end of the file, or a file system that takes such reading amiss
        return readFully(Side::destination, fd_, into, offset);
    }

private:
    static constexpr std::uint64_t worthwhile = std::uint64_t{1} << 18;

    void useCache() noexcept {
        if (std::exchange(direct_, false)) fcntl(fd_, F_SETFL, flags_);
    }

    int fd_;
    int flags_;
    bool direct_ = false;
};

FileContents::FileContents()
    : first_(std::make_unique_for_overwrite<Buffer>()),
      second_(std::make_unique_for_overwrite<Buffer>()) {}

FileContents::~FileContents() = default;

FileContents& FileContents::ofThisThread() {
    thread_local FileContents contents;
    return contents;
}

void FileContents::copy(int source, int copy, const Status& original) {
    const auto turn = turnFor(original);
    const std::uint64_t size = original.size;
    if (!mayHaveHoles(original)) return copyRange(source, copy, 0, size);
    std::uint64_t end = 0;
    for (std::uint64_t at = 0; at < size;) {
        at = nextData(Side::source, source, at, size);
        if (at == size) break;
        end = nextHole(Side::source, source, at, size);
        copyRange(source, copy, at, end);
        at = end;
    }
    if (end < size && ftruncate(copy, static_cast<off_t>(size)) != 0) {
        fail(Side::destination, "cannot be written");
    }
}

void FileContents::copyRange(int source, int copy, std::uint64_t from, std::uint64_t to) {
    while (from < to) {
        const std::size_t length = std::min<std::uint64_t>(bufferSize, to - from);
        const std::span<std::byte> buffer(first_->bytes, length);
        if (readFully(Side::source, source, buffer, from) != length) throw Difference::changed();
        writeFully(copy, buffer, from);
        from += length;
    }
}

void FileContents::compare(int source, int copy, const Status& original) {
    const auto turn = turnFor(original);
    const std::uint64_t size = original.size;
    CopyReader reader(copy, size);
    if (!mayHaveHoles(original)) return compareRange(source, reader, 0, size);
    for (std::uint64_t at = 0; at < size;) {
        const std::uint64_t start = std::min(nextData(Side::source, source, at, size),
                                             nextData(Side::destination, copy, at, size));
        if (start == size) break;
        const std::uint64_t end = std::max(nextHole(Side::source, source, start, size),
                                           nextHole(Side::destination, copy, start, size));
        compareRange(source, reader, start, end);
        at = end;
    }
}

void FileContents::compareRange(int source, CopyReader& copy, std::uint64_t from,
                                std::uint64_t to) {
    while (from < to) {
        const std::size_t length = std::min<std::uint64_t>(bufferSize, to - from);
        const std::span<std::byte> original(first_->bytes, length);
        const std::span<std::byte> written(second_->bytes, length);
        if (readFully(Side::source, source, original, from) != length) throw Difference::changed();
        if (copy.read(written, from) != length ||
            std::memcmp(original.data(), written.data(), length) != 0) {
            throw Difference("contents differ in the copy");
        }
        from += length;
    }
}
