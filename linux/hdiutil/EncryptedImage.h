#pragma once

#include "BlockDevice.h"
#include "Quillvane/FileDescriptor.h"
#include "Quillvane/Secret.h"
#include "WriteQueue.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <span>

/// The plaintext of an encrypted image, as a row of 4096-byte blocks.
///
/// Encryption is AES-XTS with the "plain64" initial vector, as dm-crypt does it for a LUKS2 crypt
/// segment: the vector counts 512-byte units from the start of the payload, whatever the sector
/// size (Linux, Documentation/admin-guide/device-mapper/dm-crypt.rst, without iv_large_sectors).
/// All operations may be called from several threads at once. I/O failures are
/// `std::system_error` with the errno; a short read beyond the file's end is EIO.
class EncryptedImage : public BlockDevice {
public:
    struct Geometry {
        std::uint64_t payloadOffset = 0; ///< bytes from the start of the file
        std::uint64_t payloadSize = 0;   ///< bytes, rounded down to whole blocks
        std::uint32_t sectorSize = 4096; ///< 512 or 4096: bytes encrypted under one vector
        bool toEndOfFile = false;        ///< the payload is as long as the file lets it be
    };

    /// Takes ownership of `fd` and keeps it open, with whatever lock it carries, until destroyed.
    /// `volumeKey` has 32 bytes (AES-128-XTS) or 64 bytes (AES-256-XTS).
    EncryptedImage(int fd, const Secret& volumeKey, const Geometry& geometry);
    ~EncryptedImage() override;

    int fd() const noexcept { return fd_; }
    std::uint64_t blockCount() const noexcept override { return blocks_; }
    std::uint64_t freeBlocks() override;
    void read(std::uint64_t firstBlock, std::span<std::byte> into) override;
    void write(std::uint64_t firstBlock, std::span<const std::byte> from) override;
    bool writeSoon(std::uint64_t firstBlock, std::span<const std::byte> from,
                   std::uint64_t behind) override;
    void reserve(std::uint64_t firstBlock, std::uint64_t count) override;
    void sync() override;
    void syncAhead() override;
    std::uint64_t longestCount() override;
    void lengthen(std::uint64_t count) override;
    bool discard(std::uint64_t firstBlock, std::uint64_t count) override;
    std::uint64_t backedBlocks() override;

private:
    class CipherPool;

    void checkRow(std::uint64_t firstBlock, std::size_t size) const;
    void readAhead(std::uint64_t start, std::uint64_t size);
    bool claimRoom(std::uint64_t start, std::uint64_t size, std::uint64_t behind);
    void writeNow(std::uint64_t firstBlock, std::span<const std::byte> from);
    bool writeDirectly(std::span<const std::byte> piece, std::uint64_t offset);

    int fd_;
    FileDescriptor direct_; ///< the same file without the system's cache, if that is possible
    std::atomic<bool> useDirect_ = false;
    const Geometry geometry_;
    std::atomic<std::uint64_t> blocks_;
    std::unique_ptr<CipherPool> pool_;
    /// Bytes of the payload that have room on the disk: taken last, and how far they are used.
    std::mutex claimMutex_;
    std::uint64_t claimStart_ = 0;
    std::uint64_t claimEnd_ = 0;
    std::uint64_t claimUsed_ = 0;
    bool canClaim_ = true;
    /// Bytes of the payload: where the last long read ended, and what the disk was asked for.
    std::mutex aheadMutex_;
    std::uint64_t readEnd_ = 0;
    std::uint64_t aheadEnd_ = 0;
    std::mutex syncMutex_;
    std::exception_ptr failedAhead_;
    std::unique_ptr<WriteQueue> queue_; ///< for large writes
};
