#include "Journal.h"

#include "Ext2Error.h"

#include <ext2fs/ext2fs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

using namespace JournalFormat;

namespace {

constexpr std::size_t blockSize = Journal::blockSize;
/// A descriptor block: header, tags, one UUID, checksum.
constexpr std::size_t tagsPerBlock =
    (blockSize - sizeof(Header) - uuidSize - sizeof(Tail)) / sizeof(Tag);

std::uint32_t crc(std::uint32_t seed, const void* bytes, std::size_t size) {
    return ext2fs_crc32c_le(seed, static_cast<const unsigned char*>(bytes), size);
}

template <typename Structure> Structure& at(std::byte* place) {
    return *reinterpret_cast<Structure*>(place);
}

std::size_t divideUp(std::size_t number, std::size_t by) {
    return (number + by - 1) / by;
}

} // namespace

Journal::Journal(BlockDevice& device, std::vector<std::uint64_t> blocks, bool wide)
    : device_(device), blocks_(std::move(blocks)), wide_(wide) {
    if (blocks_.size() < fewestBlocks) throw JournalUnusable("the journal is too small");
    load();
}

void Journal::load() {
    device_.read(blocks_.front(), superblock_);
    const auto& super = at<Superblock>(superblock_.data());
    if (super.header.magicNumber != magic || super.header.type != superblockVersion2)
        throw JournalUnusable("the journal has no superblock");
    if (super.blockSize != blockSize || super.length > blocks_.size() ||
        super.length < fewestBlocks || super.first == 0 || super.first >= super.length / 2)
        throw JournalUnusable("the journal's superblock makes no sense");
    if ((super.incompatible & ~std::uint32_t{everyKnown}) != 0 || super.readOnlyCompatible != 0)
        throw JournalUnusable("the journal uses features that are not supported");
    if (super.start != 0 || super.error != 0)
        throw JournalUnusable("the journal has not been replayed");
    first_ = super.first;
    ring_ = super.length - super.first;
    sequence_ = super.sequence;
    seed_ = crc(checksumSeed, super.uuid, sizeof super.uuid);
}

void Journal::start() {
    for (std::size_t from = 0; from < blocks_.size();) {
        std::size_t to = from + 1;
        while (to < blocks_.size() && blocks_[to] == blocks_[to - 1] + 1) ++to;
        device_.reserve(blocks_[from], to - from);
        from = to;
    }
    head_ = 0;
    used_ = 0;
    auto& super = at<Superblock>(superblock_.data());
    // The log is empty, so nothing in it depends on what was understood before.
    super.compatible = 0;
    super.incompatible = withRevokes | withChecksums3 | (wide_ ? with64Bit : 0U);
    super.checksumType = checksumCrc32c;
    writeSuperblock(first_);
    started_ = true;
}

void Journal::clear() {
    // What is free in the ring may be written over only when nobody would begin to read there.
    writeSuperblock(first_ + static_cast<std::uint32_t>(head_));
    used_ = 0;
}

void Journal::stop() {
    writeSuperblock(0);
    used_ = 0;
    started_ = false;
}

void Journal::writeSuperblock(std::uint32_t start) {
    auto& super = at<Superblock>(superblock_.data());
    super.start = start;
    super.sequence = sequence_;
    super.checksum = 0;
    super.checksum = crc(checksumSeed, &super, sizeof super);
    device_.write(blocks_.front(), superblock_);
    device_.sync();
}

std::size_t Journal::revokesPerBlock() const noexcept {
    return (blockSize - sizeof(RevokeHeader) - sizeof(Tail)) /
           (wide_ ? sizeof(Big64) : sizeof(Big32));
}

std::size_t Journal::blocksFor(std::size_t changes, std::size_t revoked) const noexcept {
    return changes + divideUp(changes, tagsPerBlock) + divideUp(revoked, revokesPerBlock()) + 1;
}

void Journal::commit(std::span<const Change> changes, std::span<const std::uint64_t> revoked) {
    if (!unfinished_.empty()) finishTransaction();
    if (blocksFor(changes.size(), revoked.size()) > room()) failWith(EFBIG);
    compose(changes, revoked);
    finishTransaction();
}

void Journal::compose(std::span<const Change> changes, std::span<const std::uint64_t> revoked) {
    try {
        unfinished_.reserve(blocksFor(changes.size(), revoked.size()) * blockSize);
        appendRevokes(revoked);
        appendChanges(changes);
        appendCommit();
    } catch (const std::bad_alloc&) {
        unfinished_.clear();
        throw;
    }
}

std::byte* Journal::append(BlockType type) {
    unfinished_.resize(unfinished_.size() + blockSize);
    std::byte* block = &*unfinished_.end() - blockSize;
    auto& header = at<Header>(block);
    header.magicNumber = magic;
    header.type = type;
    header.sequence = sequence_;
    return block;
}

void Journal::closeBlock(std::byte* block) const {
    at<Tail>(block + blockSize - sizeof(Tail)).checksum = crc(seed_, block, blockSize);
}

void Journal::appendRevokes(std::span<const std::uint64_t> revoked) {
    while (!revoked.empty()) {
        const auto part = revoked.first(std::min(revoked.size(), revokesPerBlock()));
        std::byte* block = append(revokeBlock);
        std::byte* place = block + sizeof(RevokeHeader);
        for (const std::uint64_t number : part) {
            if (wide_)
                at<Big64>(place) = number;
            else
                at<Big32>(place) = static_cast<std::uint32_t>(number);
            place += wide_ ? sizeof(Big64) : sizeof(Big32);
        }
        at<RevokeHeader>(block).bytesUsed = static_cast<std::uint32_t>(place - block);
        closeBlock(block);
        revoked = revoked.subspan(part.size());
    }
}

void Journal::appendChanges(std::span<const Change> changes) {
    while (!changes.empty()) {
        const auto part = changes.first(std::min(changes.size(), tagsPerBlock));
        // Its number, as no pointer to it survives the next append.
        const std::size_t descriptor = unfinished_.size();
        std::byte* uuid = append(descriptorBlock) + sizeof(Header) + sizeof(Tag);
        std::memcpy(uuid, at<Superblock>(superblock_.data()).uuid, uuidSize);
        std::size_t place = descriptor + sizeof(Header);
        for (std::size_t i = 0; i < part.size(); ++i) {
            Tag tag = appendCopy(part[i]);
            if (i > 0) tag.flags = tag.flags | sameUuid;
            if (i + 1 == part.size()) tag.flags = tag.flags | lastTag;
            at<Tag>(unfinished_.data() + place) = tag;
            place += sizeof(Tag) + (i == 0 ? uuidSize : 0);
        }
        closeBlock(unfinished_.data() + descriptor);
        changes = changes.subspan(part.size());
    }
}

Tag Journal::appendCopy(const Change& change) {
    const std::size_t copy = unfinished_.size();
    unfinished_.insert(unfinished_.end(), change.contents, change.contents + blockSize);
    std::byte* bytes = unfinished_.data() + copy;
    Tag tag;
    tag.block = static_cast<std::uint32_t>(change.block);
    tag.blockHigh = static_cast<std::uint32_t>(change.block >> 32);
    // A copy must not look like a block of the journal itself.
    if (at<Big32>(bytes) == magic) {
        at<Big32>(bytes) = 0;
        tag.flags = escaped;
    }
    const Big32 sequence = sequence_;
    tag.checksum = crc(crc(seed_, &sequence, sizeof sequence), bytes, blockSize);
    return tag;
}

void Journal::appendCommit() {
    std::byte* block = append(commitBlock);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    auto& commit = at<Commit>(block);
    commit.seconds = static_cast<std::uint64_t>(now.tv_sec);
    commit.nanoseconds = static_cast<std::uint32_t>(now.tv_nsec);
    commit.checksum[0] = crc(seed_, block, blockSize);
}

/// Whatever of the transaction an earlier attempt has left on the disk, the same bytes go to the
/// same places again: no mixture can come of it.
void Journal::finishTransaction() {
    const std::size_t count = unfinished_.size() / blockSize;
    const auto all = std::span<const std::byte>(unfinished_);
    writeLog(head_, all.first((count - 1) * blockSize));
    device_.sync();
    writeLog((head_ + count - 1) % ring_, all.last(blockSize));
    device_.sync();
    head_ = (head_ + count) % ring_;
    used_ += count;
    ++sequence_;
    unfinished_.clear();
    unfinished_.shrink_to_fit();
}

/// Writes blocks of the ring, those that lie in one row on the device by one call.
void Journal::writeLog(std::size_t place, std::span<const std::byte> from) {
    while (!from.empty()) {
        const std::size_t left = from.size() / blockSize;
        const std::uint64_t begin = blocks_[first_ + place];
        std::size_t count = 1;
        while (count < left && place + count < ring_ &&
               blocks_[first_ + place + count] == begin + count)
            ++count;
        device_.write(begin, from.first(count * blockSize));
        from = from.subspan(count * blockSize);
        place = (place + count) % ring_;
    }
}
