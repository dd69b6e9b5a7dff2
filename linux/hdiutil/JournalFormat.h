#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <endian.h>

/// The journal of an ext4 volume as it lies on the disk: jbd2's format, as described in Linux,
/// Documentation/filesystems/ext4/journal.rst. All numbers are big-endian.
namespace JournalFormat {

/// A big-endian number that is used like any other.
template <std::unsigned_integral Number> class Big {
public:
    Big() = default;
    Big(Number value) noexcept { *this = value; }
    Big& operator=(Number value) noexcept {
        stored_ = swapped(value);
        return *this;
    }
    operator Number() const noexcept { return swapped(stored_); }

private:
    static Number swapped(Number value) noexcept {
        if constexpr (sizeof(Number) == sizeof(std::uint64_t)) return htobe64(value);
        if constexpr (sizeof(Number) == sizeof(std::uint32_t)) return htobe32(value);
    }
    Number stored_ = 0;
};
using Big32 = Big<std::uint32_t>;
using Big64 = Big<std::uint64_t>;

constexpr std::uint32_t magic = 0xc03b3998;
constexpr std::uint32_t checksumSeed = 0xffffffff; ///< of a crc32c that begins

enum BlockType : std::uint32_t {
    descriptorBlock = 1,
    commitBlock = 2,
    superblockVersion2 = 4,
    revokeBlock = 5,
};

/// Features that a journal must be understood with.
enum Incompatible : std::uint32_t {
    withRevokes = 0x1,
    with64Bit = 0x2,
    withAsyncCommit = 0x4,
    withChecksums2 = 0x8,
    withChecksums3 = 0x10,
    withFastCommit = 0x20,
    everyKnown = 0x3f,
};

struct Header {
    Big32 magicNumber;
    Big32 type;
    Big32 sequence;
};

struct Superblock {
    Header header;
    Big32 blockSize;
    Big32 length; ///< blocks, this one included
    Big32 first;  ///< block of the log
    Big32 sequence;
    Big32 start; ///< block of the oldest transaction; 0 when there is none
    Big32 error;
    Big32 compatible;
    Big32 incompatible;
    Big32 readOnlyCompatible;
    std::uint8_t uuid[16];
    Big32 users;
    Big32 dynamicSuperblock;
    Big32 mostTransaction;
    Big32 mostTransactionData;
    std::uint8_t checksumType;
    std::uint8_t padding[3];
    Big32 fastCommitBlocks;
    Big32 head;
    std::uint32_t padding2[40];
    Big32 checksum; ///< of the whole structure with 0 here
    std::uint8_t usersIds[16 * 48];
};
static_assert(sizeof(Superblock) == 1024 && offsetof(Superblock, checksum) == 0xfc);
constexpr std::uint8_t checksumCrc32c = 4;

/// Tells where a block of the transaction belongs; follows a descriptor block's header. The first
/// one is followed by a UUID of 16 bytes.
struct Tag {
    Big32 block;
    Big32 flags;
    Big32 blockHigh;
    Big32 checksum; ///< of the sequence number and the block as it lies in the journal
};
static_assert(sizeof(Tag) == 16);
constexpr std::size_t uuidSize = 16;

enum TagFlag : std::uint32_t {
    escaped = 1, ///< the block's first four bytes were the magic number and are 0 in the journal
    sameUuid = 2,
    lastTag = 8,
};

/// The end of a descriptor or revoke block.
struct Tail {
    Big32 checksum; ///< of the whole block with 0 here
};

struct RevokeHeader {
    Header header;
    Big32 bytesUsed; ///< this header and the block numbers behind it
};

struct Commit {
    Header header;
    std::uint8_t checksumType; ///< 0: the kind of the superblock
    std::uint8_t checksumSize;
    std::uint8_t padding[2];
    Big32 checksum[8]; ///< the first: of the whole block with 0 here
    Big64 seconds;
    Big32 nanoseconds;
};
static_assert(offsetof(Commit, checksum) == 16 && offsetof(Commit, seconds) == 48);

} // namespace JournalFormat
