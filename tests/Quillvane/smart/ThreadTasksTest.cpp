#include "Quillvane/ThreadTasks.h"

#include <QCoreApplication>

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <vector>

namespace {

using ::testing::ElementsAre;

TEST(ThreadTasks, RunsWorkElsewhereAndTheEndingHere) {
    ThreadTasks tasks;
    std::thread::id worker;
    std::thread::id ended;
    tasks.start([&] { worker = std::this_thread::get_id(); },
                [&](const std::exception_ptr& error) {
                    EXPECT_FALSE(error);
                    ended = std::this_thread::get_id();
                    QCoreApplication::quit();
                });
    QCoreApplication::exec();
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_EQ(ended, std::this_thread::get_id());
}

TEST(ThreadTasks, BringsBackWhatWorkThrew) {
    ThreadTasks tasks;
    std::string text;
    tasks.start([] { throw std::runtime_error("no"); },
                [&](const std::exception_ptr& error) {
                    try {
                        std::rethrow_exception(error);
                    } catch (const std::runtime_error& thrown) {
                        text = thrown.what();
                    }
                });
    tasks.finish();
    EXPECT_EQ(text, "no");
}

TEST(ThreadTasks, KeepsTheOrderOfReports) {
    ThreadTasks tasks;
    std::vector<int> seen;
    tasks.start(
        [&] {
            for (int number = 0; number < 1000; ++number)
                tasks.post([&seen, number] { seen.push_back(number); });
        },
        [&](const std::exception_ptr&) { seen.push_back(1000); });
    tasks.finish();
    ASSERT_EQ(seen.size(), 1001U);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST(ThreadTasks, FinishWaitsForWorkThatAnEndingStarts) {
    ThreadTasks tasks;
    std::vector<int> seen;
    tasks.start([] {},
                [&](const std::exception_ptr&) {
                    seen.push_back(1);
                    tasks.start([] {}, [&](const std::exception_ptr&) { seen.push_back(2); });
                });
    tasks.finish();
    EXPECT_THAT(seen, ElementsAre(1, 2));
}

TEST(ThreadTasks, ItsEndWaitsForWorkAndDropsEndings) {
    std::atomic<bool> done{false};
    bool ended = false;
    {
        ThreadTasks tasks;
        tasks.start(
            [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                done = true;
            },
            [&](const std::exception_ptr&) { ended = true; });
    }
    EXPECT_TRUE(done);
    EXPECT_FALSE(ended);
}

} // namespace
