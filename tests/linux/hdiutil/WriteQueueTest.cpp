#include "linux/hdiutil/WriteQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t blockSize = WriteQueue::blockSize;

std::vector<std::byte> blocks(std::size_t count, int value) {
    return std::vector<std::byte>(count * blockSize, static_cast<std::byte>(value));
}

/// A disk in memory that can be stopped and can fail.
class SlowDisk {
public:
    void write(std::uint64_t first, std::span<const std::byte> from) {
        std::unique_lock lock(mutex_);
        running_.wait(lock, [&] { return !stopped_; });
        if (error_ != 0) throw std::system_error(error_, std::generic_category());
        rows_.push_back(from.size() / blockSize);
        for (std::size_t i = 0; i < from.size() / blockSize; ++i)
            content_[first + i] = from[i * blockSize];
    }
    WriteQueue::Write writer() {
        return [this](std::uint64_t first, std::span<const std::byte> from) { write(first, from); };
    }
    void stop() {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    void go() {
        {
            const std::lock_guard lock(mutex_);
            stopped_ = false;
        }
        running_.notify_all();
    }
    void fail(int error) {
        const std::lock_guard lock(mutex_);
        error_ = error;
    }
    int at(std::uint64_t block) {
        const std::lock_guard lock(mutex_);
        return content_.contains(block) ? static_cast<int>(content_[block]) : -1;
    }
    std::vector<std::size_t> rows() {
        const std::lock_guard lock(mutex_);
        return rows_;
    }

private:
    std::mutex mutex_;
    std::condition_variable running_;
    bool stopped_ = false;
    int error_ = 0;
    std::map<std::uint64_t, std::byte> content_;
    std::vector<std::size_t> rows_; ///< how many blocks each write had
};

template <typename Work> int errnoFrom(Work work) {
    try {
        work();
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

TEST(WriteQueueTest, WritesInOrder) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    disk.stop();
    for (int value = 1; value <= 9; ++value) queue.add(5, blocks(1, value));
    disk.go();
    queue.finish();
    EXPECT_EQ(disk.at(5), 9);
}

TEST(WriteQueueTest, JoinsRowsThatContinueEachOther) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    disk.stop();
    for (std::uint64_t block = 0; block < 512; block += 32) queue.add(block, blocks(32, 7));
    disk.go();
    queue.finish();
    const auto rows = disk.rows();
    // The first may have been on its way before the second came.
    EXPECT_LE(rows.size(), 4U);
    EXPECT_LE(*std::max_element(rows.begin(), rows.end()),
              WriteQueue::longestRow / WriteQueue::blockSize);
    for (std::uint64_t block = 0; block < 512; ++block) EXPECT_EQ(disk.at(block), 7);
}

TEST(WriteQueueTest, ReadersSeeWhatWaits) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    disk.stop();
    queue.add(10, blocks(4, 1));
    queue.add(12, blocks(4, 2));
    auto seen = blocks(8, 0);
    queue.readOver(8, seen, [&] { std::fill(seen.begin(), seen.end(), std::byte{9}); });
    std::vector<int> values;
    for (std::size_t i = 0; i < 8; ++i) values.push_back(static_cast<int>(seen[i * blockSize]));
    EXPECT_EQ(values, (std::vector<int>{9, 9, 1, 1, 2, 2, 2, 2}));
    disk.go();
}

TEST(WriteQueueTest, WhatFailedStaysAndIsToldUntilItSucceeds) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    disk.fail(ENOSPC);
    queue.add(1, blocks(1, 1));
    EXPECT_EQ(errnoFrom([&] { queue.finish(); }), ENOSPC);
    EXPECT_EQ(errnoFrom([&] { queue.finish(); }), ENOSPC);
    EXPECT_EQ(errnoFrom([&] { queue.add(2, blocks(1, 2)); }), ENOSPC);
    EXPECT_EQ(errnoFrom([&] { queue.settle(1, blockSize); }), ENOSPC);
    auto seen = blocks(1, 0);
    queue.readOver(1, seen, [] {});
    EXPECT_EQ(static_cast<int>(seen[0]), 1);

    disk.fail(0);
    queue.add(3, blocks(1, 3));
    queue.finish();
    EXPECT_EQ(disk.at(1), 1);
    EXPECT_EQ(disk.at(2), -1);
    EXPECT_EQ(disk.at(3), 3);
}

TEST(WriteQueueTest, SettlesOnlyWhatOverlaps) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    disk.stop();
    queue.add(1, blocks(2, 1));
    queue.settle(3, blockSize); // returns, although nothing was written
    EXPECT_EQ(disk.at(1), -1);
    std::thread waiting([&] { queue.settle(2, blockSize); });
    disk.go();
    waiting.join();
    EXPECT_EQ(disk.at(2), 1);
}

TEST(WriteQueueTest, FinishesThoughOthersGoOnAdding) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    std::atomic<bool> stop = false;
    std::thread adding([&] {
        // Always more than the disk has written.
        while (!stop) queue.add(100, blocks(64, 1));
    });
    while (disk.at(100) != 1) std::this_thread::yield();
    queue.add(1, blocks(1, 5));
    queue.finish();
    EXPECT_EQ(disk.at(1), 5);
    stop = true;
    adding.join();
}

TEST(WriteQueueTest, HoldsNoMoreThanItsCapacity) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    disk.stop();
    std::atomic<std::size_t> added = 0;
    std::thread adding([&] {
        for (std::uint64_t i = 0; i < 40; ++i) {
            queue.add(i * 256, blocks(256, 1));
            ++added;
        }
    });
    while (added < WriteQueue::capacity / WriteQueue::longestRow) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(added, WriteQueue::capacity / WriteQueue::longestRow);
    disk.go();
    adding.join();
    queue.finish();
    EXPECT_EQ(disk.at(39 * 256), 1);
}

TEST(WriteQueueTest, WritesWhatIsLeftAtItsEnd) {
    SlowDisk disk;
    {
        WriteQueue queue(disk.writer());
        disk.stop();
        for (std::uint64_t i = 0; i < 5; ++i) queue.add(i * 10, blocks(1, 4));
        disk.go();
    }
    for (std::uint64_t i = 0; i < 5; ++i) EXPECT_EQ(disk.at(i * 10), 4);
}

TEST(WriteQueueTest, EndsWhenItsDiskIsBroken) {
    SlowDisk disk;
    disk.fail(EIO);
    WriteQueue queue(disk.writer());
    queue.add(1, blocks(1, 1));
    EXPECT_EQ(errnoFrom([&] { queue.finish(); }), EIO);
}

TEST(WriteQueueTest, ManyThreadsSeeTheirOwnWrites) {
    SlowDisk disk;
    WriteQueue queue(disk.writer());
    std::vector<std::thread> threads;
    std::atomic<int> wrong = 0;
    for (std::uint64_t number = 0; number < 4; ++number)
        threads.emplace_back([&, number] {
            std::minstd_rand random(static_cast<unsigned>(number) + 1);
            std::vector<int> own(64, -1);
            for (int i = 0; i < 300; ++i) {
                const std::uint64_t block = number * 64 + random() % 64;
                if (random() % 2 == 0) {
                    own[block % 64] = static_cast<int>(random() % 100);
                    queue.add(block, blocks(1, own[block % 64]));
                }
                auto seen = blocks(1, 0);
                queue.readOver(block, seen,
                               [&] { seen[0] = static_cast<std::byte>(disk.at(block)); });
                if (own[block % 64] >= 0 && static_cast<int>(seen[0]) != own[block % 64]) ++wrong;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
