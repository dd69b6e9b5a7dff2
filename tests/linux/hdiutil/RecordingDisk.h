#pragma once

#include "linux/hdiutil/BlockDevice.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

/// A disk in memory that remembers in which order it was written and synced, and can show what a
/// power cut would have left of it. It holds a fresh ext4 by mke2fs, unencrypted. Blocks that were
/// discarded or never written hold garbage, as the holes of an encrypted file do.
class RecordingDisk : public BlockDevice {
public:
    /// Where a disk stops working, if it does.
    struct Fault {
        std::size_t from = 0; ///< number of the first attempt that fails
        std::size_t count = 0;
        int error = 0;
    };

    /// `options` go to mke2fs besides the block and inode sizes.
    RecordingDisk(unsigned megabytes, const std::string& options);

    std::uint64_t blockCount() const noexcept override { return content_.size() / blockSize; }
    std::uint64_t freeBlocks() override { return 2 * longest_; }
    void read(std::uint64_t firstBlock, std::span<std::byte> into) override;
    void write(std::uint64_t firstBlock, std::span<const std::byte> from) override;
    void reserve(std::uint64_t firstBlock, std::uint64_t count) override;
    void sync() override;
    std::uint64_t longestCount() override;
    void lengthen(std::uint64_t count) override;
    bool discard(std::uint64_t firstBlock, std::uint64_t count) override;

    /// How long the disk may become, in small steps; at first no longer than it is.
    void mayGrowTo(unsigned megabytes) { longest_ = (std::uint64_t{megabytes} << 20) / blockSize; }
    /// Writes of one block, syncs, lengthenings and discards so far.
    std::size_t events() const noexcept { return events_.size(); }
    bool isSync(std::size_t event) const { return events_[event].kind == Kind::sync; }
    /// How often the disk was lengthened, and blocks were discarded.
    std::size_t lengthenings() const { return count(Kind::length); }
    std::size_t discards() const { return count(Kind::discard); }
    /// Like `events`, with those that failed, and with reservations on a disk that gets full.
    std::size_t attempts() const noexcept { return attempts_; }
    void breakDown(const Fault& fault) { fault_ = fault; }

    /// What is on the disk after the first `events` of them.
    std::vector<std::byte> after(std::size_t events) const;
    /// The same, but of the writes since the last sync only some, picked at random.
    std::vector<std::byte> after(std::size_t events, std::minstd_rand& random) const;

private:
    enum class Kind { write, sync, length, discard };
    struct Event {
        Kind kind = Kind::sync;
        std::uint64_t block = 0; ///< or the new length
        std::uint64_t count = 0;
        std::vector<std::byte> data;
    };
    std::size_t count(Kind kind) const;
    void failWhenBroken();
    static void apply(const Event& event, std::vector<std::byte>& to);

    std::uint64_t longest_;
    std::vector<std::byte> fresh_;
    std::vector<std::byte> content_;
    std::vector<Event> events_;
    Fault fault_;
    std::size_t attempts_ = 0;
};

/// What ends with the object: a directory, and the programs run in it.
class PlainImages {
public:
    PlainImages();
    ~PlainImages();
    PlainImages(const PlainImages&) = delete;
    PlainImages& operator=(const PlainImages&) = delete;

    std::filesystem::path write(const std::vector<std::byte>& content) const;
    static std::vector<std::byte> read(const std::filesystem::path& file);

private:
    std::filesystem::path directory_;
};

struct Outcome {
    int status = 0;
    std::string output;
};
/// Runs a shell command.
Outcome runCommand(const std::string& command);
