#include "PlaintextFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

constexpr std::uint64_t blockSize = EncryptedImage::blockSize;

struct BlockRange {
    BlockRange(std::uint64_t offset, std::uint64_t length)
        : first(offset / blockSize), end((offset + length + blockSize - 1) / blockSize) {}
    std::size_t bytes() const { return (end - first) * blockSize; }

    std::uint64_t first;
    std::uint64_t end;
};

} // namespace

template <typename Work> void PlaintextFile::noting(Work work) {
    try {
        work();
    } catch (const std::system_error& error) {
        if (failure_ == 0) failure_ = error.code().value();
        throw;
    }
}

void PlaintextFile::readBlocks(std::uint64_t first, std::span<std::byte> into) {
    noting([&] { image_.read(first, into); });
}

void PlaintextFile::writeBlocks(std::uint64_t first, std::span<const std::byte> from) {
    if (failure_ != 0) throw std::system_error(failure_, std::generic_category());
    noting([&] { image_.write(first, from); });
}

void PlaintextFile::sync() {
    noting([&] { image_.sync(); });
}

std::span<const std::byte> PlaintextFile::read(std::uint64_t offset, std::size_t length) {
    if (offset >= size()) return {};
    length = std::min<std::uint64_t>(length, size() - offset);
    const BlockRange range(offset, length);
    buffer_.resize(range.bytes());
    readBlocks(range.first, buffer_);
    return std::span(buffer_).subspan(offset % blockSize, length);
}

void PlaintextFile::write(std::uint64_t offset, std::span<const std::byte> from) {
    if (offset > size() || from.size() > size() - offset)
        throw std::system_error(ENOSPC, std::generic_category());
    if (from.empty()) return;
    const BlockRange range(offset, from.size());
    if (range.bytes() == from.size()) {
        writeBlocks(range.first, from);
        return;
    }
    buffer_.resize(range.bytes());
    const std::span<std::byte> blocks(buffer_);
    readBlocks(range.first, blocks.first(blockSize));
    if (range.end - range.first > 1) readBlocks(range.end - 1, blocks.last(blockSize));
    std::memcpy(blocks.data() + offset % blockSize, from.data(), from.size());
    writeBlocks(range.first, blocks);
}
