#include "WriteQueue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace {
/// How long a row that may become longer stays in memory.
constexpr std::chrono::milliseconds patience{5};
} // namespace

WriteQueue::WriteQueue(Write write) : write_(std::move(write)) {
    spare_.reserve(capacity / longestRow);
    thread_ = std::thread([this] { run(); });
}

WriteQueue::~WriteQueue() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        failure_ = nullptr;
    }
    changed_.notify_all();
    thread_.join();
}

void WriteQueue::run() noexcept {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [&] { return (!rows_.empty() && !failure_) || ending_; });
        if (rows_.empty() || failure_) return;
        changed_.wait_for(lock, patience, [&] { return waiters_ > 0 || ending_ || !growing(); });
        writing_ = true;
        Row& row = rows_.front(); // nobody else changes it now
        lock.unlock();
        std::exception_ptr failure;
        try {
            write_(row.firstBlock, row.contents);
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        writing_ = false;
        failure_ = failure;
        failing_ = failure != nullptr;
        if (!failing_) drop(row);
        changed_.notify_all();
    }
}

/// Whether the first row may become longer before it is written: disks take one long row faster
/// than several short ones.
bool WriteQueue::growing() const noexcept {
    return rows_.size() == 1 && !failing_ && rows_.front().contents.size() < longestRow;
}

void WriteQueue::drop(Row& row) {
    size_ -= row.contents.size();
    written_ += row.contents.size();
    row.contents.clear();
    if (spare_.size() < spare_.capacity()) spare_.push_back(std::move(row.contents));
    rows_.pop_front();
}

/// Waits until `done`, or until the first row has failed once more.
template <typename Done> void WriteQueue::await(std::unique_lock<std::mutex>& lock, Done done) {
    if (done()) return;
    failure_ = nullptr;
    ++waiters_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return failure_ || done(); });
    --waiters_;
    if (!done()) std::rethrow_exception(failure_);
}

void WriteQueue::add(std::uint64_t firstBlock, std::span<const std::byte> from) {
    std::unique_lock lock(mutex_);
    await(lock, [&] { return !failing_ && (rows_.empty() || size_ + from.size() <= capacity); });
    const bool inHand = writing_ && rows_.size() == 1;
    const bool continues = !rows_.empty() && !inHand && rows_.back().end() == firstBlock &&
                           rows_.back().contents.size() + from.size() <= longestRow;
    const bool first = rows_.empty();
    if (!continues) rows_.push_back({firstBlock, takeMemory()});
    std::vector<std::byte>& contents = rows_.back().contents;
    contents.insert(contents.end(), from.begin(), from.end());
    size_ += from.size();
    added_ += from.size();
    const bool wake = first || !growing();
    lock.unlock();
    if (wake) changed_.notify_all();
}

/// Fresh memory costs more than what is copied into it.
std::vector<std::byte> WriteQueue::takeMemory() {
    std::vector<std::byte> memory;
    if (!spare_.empty()) {
        memory = std::move(spare_.back());
        spare_.pop_back();
    }
    memory.reserve(longestRow);
    return memory;
}

void WriteQueue::readOver(std::uint64_t firstBlock, std::span<std::byte> into,
                          const std::function<void()>& read) {
    const std::uint64_t last = firstBlock + into.size() / blockSize;
    // Taken before the disk is read: a row that gets there in between may be read half.
    std::vector<Row> waiting;
    {
        const std::lock_guard lock(mutex_);
        for (const Row& row : rows_)
            if (row.overlaps(firstBlock, last)) waiting.push_back(row);
    }
    read();
    for (const Row& row : waiting) {
        const std::uint64_t from = std::max(firstBlock, row.firstBlock);
        const std::uint64_t to = std::min(last, row.end());
        std::memcpy(into.data() + (from - firstBlock) * blockSize,
                    row.contents.data() + (from - row.firstBlock) * blockSize,
                    (to - from) * blockSize);
    }
}

void WriteQueue::settle(std::uint64_t firstBlock, std::size_t size) {
    const std::uint64_t last = firstBlock + size / blockSize;
    std::unique_lock lock(mutex_);
    await(lock, [&] {
        return std::none_of(rows_.begin(), rows_.end(),
                            [&](const Row& row) { return row.overlaps(firstBlock, last); });
    });
}

void WriteQueue::finish() {
    std::unique_lock lock(mutex_);
    // Others may go on adding, faster than the disk writes.
    const std::uint64_t wanted = added_;
    await(lock, [&] { return written_ >= wanted; });
}
