#include "EncryptedImage.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <linux/magic.h>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t ivUnit = 512;
constexpr std::size_t ivSize = 16;
/// Ciphertext is made in pieces of this size, so that the scratch memory stays small.
constexpr std::size_t pieceSize = 512 * 1024;
/// What direct I/O needs of memory, offsets and lengths, on any disk with blocks that ext4 can use.
constexpr std::size_t directAlignment = 4096;
/// Writes of at least this many bytes go to the disk at once: the system's cache would hold a
/// second copy of what programs have written, and make them wait for the disk later, all together.
constexpr std::size_t directSize = 128 * 1024;
/// Reads of at least this many bytes that follow each other are of a long row.
constexpr std::uint64_t sequentialSize = 64 * 1024;
/// How far ahead of the reader the disk is kept busy, at least.
constexpr std::uint64_t aheadStep = std::uint64_t{2} * 1024 * 1024;

enum class Direction { decrypt = 0, encrypt = 1 };

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

[[noreturn]] void failWith(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

void plain64(std::uint64_t unit, unsigned char (&iv)[ivSize]) {
    std::memset(iv, 0, sizeof iv);
    for (std::size_t i = 0; i < 8; ++i) iv[i] = static_cast<unsigned char>(unit >> (8 * i));
}

CipherContext makeContext(const Secret& key, Direction direction) {
    CipherContext context(EVP_CIPHER_CTX_new());
    if (!context) throw std::bad_alloc();
    if (key.size() != 32 && key.size() != 64) throw std::invalid_argument("volume key size");
    const EVP_CIPHER* cipher = key.size() == 64 ? EVP_aes_256_xts() : EVP_aes_128_xts();
    if (EVP_CipherInit_ex(context.get(), cipher, nullptr, key.bytes().data(), nullptr,
                          direction == Direction::encrypt ? 1 : 0) != 1)
        throw std::runtime_error("the cipher refused the volume key");
    return context;
}

void readFully(int fd, std::byte* into, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        const ssize_t got = ::pread(fd, into, size, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failWith(errno, "reading the image");
        if (got == 0) failWith(EIO, "the image is shorter than its volume");
        into += got;
        size -= static_cast<std::size_t>(got);
        offset += static_cast<std::uint64_t>(got);
    }
}

struct AlignedDeleter {
    void operator()(std::byte* memory) const { ::operator delete(memory, alignment); }
    static constexpr auto alignment = std::align_val_t(directAlignment);
};
using AlignedMemory = std::unique_ptr<std::byte, AlignedDeleter>;

AlignedMemory alignedMemory(std::size_t size) {
    return AlignedMemory(static_cast<std::byte*>(::operator new(size, AlignedDeleter::alignment)));
}

/// The same file without the system's cache, where its file system can do that.
FileDescriptor openDirectly(int fd) {
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    return FileDescriptor(::open(name.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC));
}

void writeFully(int fd, const std::byte* from, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        const ssize_t put = ::pwrite(fd, from, size, static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) failWith(errno, "writing the image");
        from += put;
        size -= static_cast<std::size_t>(put);
        offset += static_cast<std::uint64_t>(put);
    }
}

} // namespace

/// Keyed cipher contexts and scratch memory, lent to one call at a time. Keying a context costs
/// more than a block, and a context serves one thread only.
class EncryptedImage::CipherPool {
public:
    struct Worker {
        CipherContext encrypt;
        CipherContext decrypt;
        AlignedMemory scratch = alignedMemory(pieceSize);
    };

    explicit CipherPool(const Secret& key) : key_(key) { give(make()); }

    std::unique_ptr<Worker> take() {
        {
            const std::lock_guard lock(mutex_);
            if (!idle_.empty()) {
                auto worker = std::move(idle_.back());
                idle_.pop_back();
                return worker;
            }
        }
        return make();
    }

    void give(std::unique_ptr<Worker> worker) {
        const std::lock_guard lock(mutex_);
        idle_.push_back(std::move(worker));
    }

private:
    std::unique_ptr<Worker> make() {
        auto worker = std::make_unique<Worker>();
        worker->encrypt = makeContext(key_, Direction::encrypt);
        worker->decrypt = makeContext(key_, Direction::decrypt);
        return worker;
    }

    Secret key_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Worker>> idle_;
};

namespace {

/// Transforms whole sectors, the first of which lies `payloadByte` bytes into the payload.
void transform(EVP_CIPHER_CTX* context, std::uint64_t payloadByte, std::uint32_t sectorSize,
               std::span<const std::byte> from, std::byte* into) {
    unsigned char iv[ivSize];
    for (std::size_t at = 0; at < from.size(); at += sectorSize) {
        plain64((payloadByte + at) / ivUnit, iv);
        int made = 0;
        if (EVP_CipherInit_ex(context, nullptr, nullptr, nullptr, iv, -1) != 1 ||
            EVP_CipherUpdate(context, reinterpret_cast<unsigned char*>(into + at), &made,
                             reinterpret_cast<const unsigned char*>(from.data() + at),
                             static_cast<int>(sectorSize)) != 1 ||
            made != static_cast<int>(sectorSize))
            throw std::runtime_error("the cipher failed");
    }
}

} // namespace

EncryptedImage::EncryptedImage(int fd, const Secret& volumeKey, const Geometry& geometry)
    : fd_(fd), geometry_(geometry), blocks_(geometry.payloadSize / blockSize),
      pool_(std::make_unique<CipherPool>(volumeKey)) {
    if (geometry_.payloadOffset % directAlignment == 0) direct_ = openDirectly(fd);
    useDirect_ = static_cast<bool>(direct_);
    queue_ = std::make_unique<WriteQueue>(
        [this](std::uint64_t block, std::span<const std::byte> row) { writeNow(block, row); });
}

EncryptedImage::~EncryptedImage() {
    queue_.reset();
    ::close(fd_);
}

std::uint64_t EncryptedImage::freeBlocks() {
    struct statvfs disk {};
    if (::fstatvfs(fd_, &disk) != 0) failWith(errno, "asking the disk for its room");
    return static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize / blockSize;
}

void EncryptedImage::read(std::uint64_t firstBlock, std::span<std::byte> into) {
    checkRow(firstBlock, into.size());
    queue_->readOver(firstBlock, into, [&] {
        const std::uint64_t start = firstBlock * blockSize;
        readAhead(start, into.size());
        readFully(fd_, into.data(), into.size(), geometry_.payloadOffset + start);
        auto worker = pool_->take();
        transform(worker->decrypt.get(), start, geometry_.sectorSize, into, into.data());
        pool_->give(std::move(worker));
    });
}

/// Lets the disk fetch what whoever reads a long row will ask for next: the kernel asks us for
/// small parts of it, and only a few at once.
void EncryptedImage::readAhead(std::uint64_t start, std::uint64_t size) {
    if (size < sequentialSize) return;
    const std::lock_guard lock(aheadMutex_);
    const bool continues = start + aheadStep >= readEnd_ && start <= readEnd_ + aheadStep;
    readEnd_ = start + size;
    if (!continues) aheadEnd_ = readEnd_;
    if (!continues || readEnd_ + aheadStep <= aheadEnd_) return;
    const std::uint64_t from = std::max(aheadEnd_, readEnd_);
    aheadEnd_ = std::min(readEnd_ + 2 * aheadStep, blockCount() * blockSize);
    if (from >= aheadEnd_) return;
    // Advice only: without it the disk is asked later.
    (void)::posix_fadvise(fd_, static_cast<off_t>(geometry_.payloadOffset + from),
                          static_cast<off_t>(aheadEnd_ - from), POSIX_FADV_WILLNEED);
}

void EncryptedImage::checkRow(std::uint64_t firstBlock, std::size_t size) const {
    if (size % blockSize != 0 || firstBlock > blockCount() ||
        size / blockSize > blockCount() - firstBlock)
        failWith(EIO, "blocks beyond the volume");
}

void EncryptedImage::write(std::uint64_t firstBlock, std::span<const std::byte> from) {
    checkRow(firstBlock, from.size());
    queue_->settle(firstBlock, from.size());
    writeNow(firstBlock, from);
}

bool EncryptedImage::writeSoon(std::uint64_t firstBlock, std::span<const std::byte> from,
                               std::uint64_t behind) {
    checkRow(firstBlock, from.size());
    if (from.size() >= directSize && from.size() <= WriteQueue::longestRow &&
        claimRoom(firstBlock * blockSize, from.size(), behind * blockSize)) {
        queue_->add(firstBlock, from);
        return behind > 0;
    }
    write(firstBlock, from);
    return false;
}

/// Makes sure that what is to be written later will find room on the disk. Answers whether the
/// file system beneath can tell at all. Of writes that follow each other, few have to ask it.
bool EncryptedImage::claimRoom(std::uint64_t start, std::uint64_t size, std::uint64_t behind) {
    const std::lock_guard lock(claimMutex_);
    const bool continues = start == claimUsed_;
    claimUsed_ = start + size;
    if (!canClaim_ || (claimStart_ <= start && claimUsed_ <= claimEnd_)) return canClaim_;
    const std::uint64_t ahead =
        std::min(continues ? size + behind : size, blockCount() * blockSize - start);
    const auto claim = [&](std::uint64_t length) {
        return ::fallocate(fd_, FALLOC_FL_KEEP_SIZE,
                           static_cast<off_t>(geometry_.payloadOffset + start),
                           static_cast<off_t>(length)) == 0;
    };
    claimStart_ = start;
    claimEnd_ = start + ahead;
    if (claim(ahead)) return true;
    claimEnd_ = claimUsed_;
    if (claim(size)) return true;
    claimEnd_ = claimStart_;
    if (errno != EOPNOTSUPP) failWith(errno, "reserving room in the image");
    canClaim_ = false;
    return false;
}

/// Encrypts and writes piece by piece.
void EncryptedImage::writeNow(std::uint64_t firstBlock, std::span<const std::byte> from) {
    const bool large = from.size() >= directSize;
    auto worker = pool_->take();
    std::uint64_t start = firstBlock * blockSize;
    while (!from.empty()) {
        const auto piece = from.first(std::min(pieceSize, from.size()));
        transform(worker->encrypt.get(), start, geometry_.sectorSize, piece, worker->scratch.get());
        const std::span<const std::byte> made{worker->scratch.get(), piece.size()};
        if (!large || !writeDirectly(made, geometry_.payloadOffset + start))
            writeFully(fd_, made.data(), made.size(), geometry_.payloadOffset + start);
        start += piece.size();
        from = from.subspan(piece.size());
    }
    pool_->give(std::move(worker));
}

/// Answers whether it could. File systems refuse in various ways; those that refuse are not asked
/// again. What the disk could not take goes to the system's cache, where one sync tells of it, and
/// does not hold up everything after it for ever.
bool EncryptedImage::writeDirectly(std::span<const std::byte> piece, std::uint64_t offset) {
    if (!useDirect_) return false;
    try {
        writeFully(direct_.get(), piece.data(), piece.size(), offset);
        return true;
    } catch (const std::system_error& error) {
        const int code = error.code().value();
        if (code == ENOSPC || code == EDQUOT || code == EFBIG) throw;
        if (code != EIO) useDirect_ = false;
        return false;
    }
}

void EncryptedImage::reserve(std::uint64_t firstBlock, std::uint64_t count) {
    const auto offset = static_cast<off_t>(geometry_.payloadOffset + firstBlock * blockSize);
    const auto length = static_cast<off_t>(count * blockSize);
    if (::lseek(fd_, offset, SEEK_HOLE) >= offset + length) return;
    if (::fallocate(fd_, FALLOC_FL_KEEP_SIZE, offset, length) != 0 && errno != EOPNOTSUPP)
        failWith(errno, "reserving room in the image");
}

void EncryptedImage::sync() {
    const std::lock_guard lock(syncMutex_);
    if (failedAhead_) std::rethrow_exception(std::exchange(failedAhead_, nullptr));
    queue_->finish();
    if (::fdatasync(fd_) != 0) failWith(errno, "syncing the image");
}

// The system tells only one of two threads that a write has failed.
void EncryptedImage::syncAhead() {
    const std::lock_guard lock(syncMutex_);
    queue_->finish(); // which tells again what fails
    try {
        if (::fdatasync(fd_) != 0) failWith(errno, "syncing the image");
    } catch (...) {
        failedAhead_ = std::current_exception();
        throw;
    }
}

std::uint64_t EncryptedImage::longestCount() {
    if (!geometry_.toEndOfFile) return blockCount();
    struct statfs disk {};
    if (::fstatfs(fd_, &disk) != 0) failWith(errno, "asking for the disk's file system");
    const std::uint64_t length = disk.f_type == MSDOS_SUPER_MAGIC
                                     ? std::numeric_limits<std::uint32_t>::max()
                                     : std::numeric_limits<std::int64_t>::max();
    return std::max(blockCount(), (length - geometry_.payloadOffset) / blockSize);
}

void EncryptedImage::lengthen(std::uint64_t count) {
    if (count <= blockCount()) return;
    if (count > longestCount()) failWith(EFBIG, "lengthening the image");
    const auto length = static_cast<off_t>(geometry_.payloadOffset + count * blockSize);
    while (::ftruncate(fd_, length) != 0)
        if (errno != EINTR) failWith(errno, "lengthening the image");
    blocks_ = count;
}

bool EncryptedImage::discard(std::uint64_t firstBlock, std::uint64_t count) {
    const auto offset = static_cast<off_t>(geometry_.payloadOffset + firstBlock * blockSize);
    const auto length = static_cast<off_t>(count * blockSize);
    {
        const std::lock_guard lock(claimMutex_);
        claimEnd_ = claimStart_;
    }
    while (::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length) != 0) {
        if (errno == EOPNOTSUPP || errno == ENOSYS) return false;
        if (errno != EINTR) failWith(errno, "giving back the image's room");
    }
    return true;
}

std::uint64_t EncryptedImage::backedBlocks() {
    constexpr std::uint64_t countedUnit = 512;
    struct stat file {};
    if (::fstat(fd_, &file) != 0) failWith(errno, "asking for the image's room");
    const std::uint64_t all = static_cast<std::uint64_t>(file.st_blocks) * countedUnit / blockSize;
    const std::uint64_t header = geometry_.payloadOffset / blockSize;
    return all > header ? all - header : 0;
}
