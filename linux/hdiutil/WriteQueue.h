#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <list>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

/// Writes rows of blocks on a thread of its own, in the order in which they came, so that whoever
/// brings them need not wait for the disk.
///
/// What could not be written stays, before everything that came after it, and is tried again by
/// every call that waits; nothing is ever dropped. All operations may be called from several
/// threads at once.
class WriteQueue {
public:
    static constexpr std::size_t blockSize = 4096;
    /// How much may wait, in bytes.
    static constexpr std::size_t capacity = std::size_t{16} * 1024 * 1024;
    /// Rows that continue each other are written by one call, up to this many bytes.
    static constexpr std::size_t longestRow = std::size_t{1024} * 1024;

    /// Called on the queue's thread, for one row at a time; throws `std::system_error`.
    using Write = std::function<void(std::uint64_t firstBlock, std::span<const std::byte> from)>;

    explicit WriteQueue(Write write);
    /// Tries to write what is left, once; call `finish` first to know.
    ~WriteQueue();
    WriteQueue(const WriteQueue&) = delete;
    WriteQueue& operator=(const WriteQueue&) = delete;

    /// Copies whole blocks into the queue, when there is room in it. Throws what an earlier row met
    /// with, if it still cannot be written; nothing is added then.
    void add(std::uint64_t firstBlock, std::span<const std::byte> from);
    /// Puts what waits to be written over `into`, which `read` is first called to fill: together
    /// they are what a reader is to see.
    void readOver(std::uint64_t firstBlock, std::span<std::byte> into,
                  const std::function<void()>& read);
    /// Returns when nothing that overlaps the row waits any more. Throws like `add`.
    void settle(std::uint64_t firstBlock, std::size_t size);
    /// Returns when all that was added before is written. Throws like `add`.
    void finish();

private:
    struct Row {
        std::uint64_t firstBlock = 0;
        std::vector<std::byte> contents;

        std::uint64_t end() const noexcept { return firstBlock + contents.size() / blockSize; }
        bool overlaps(std::uint64_t first, std::uint64_t last) const noexcept {
            return first < end() && firstBlock < last;
        }
    };

    void run() noexcept;
    bool growing() const noexcept;
    void drop(Row& row);
    std::vector<std::byte> takeMemory();
    template <typename Done> void await(std::unique_lock<std::mutex>& lock, Done done);

    const Write write_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::list<Row> rows_;
    bool writing_ = false; ///< the first row
    unsigned waiters_ = 0;
    std::size_t size_ = 0;
    std::uint64_t added_ = 0; ///< bytes, ever
    std::uint64_t written_ = 0;
    std::vector<std::vector<std::byte>> spare_; ///< memory of rows that are written
    std::exception_ptr failure_; ///< of the first row; the thread rests until it is taken away
    bool failing_ = false;       ///< the first row has failed, and may do so again
    bool ending_ = false;
    std::thread thread_;
};
