#pragma once

#include "Quillvane/BackgroundTasks.h"

#include <deque>
#include <thread>
#include <utility>

/// Background tasks that run when the test says so.
class ManualTasks final : public BackgroundTasks {
public:
    void start(Work work, Ending ending) override {
        waiting_.emplace_back(std::move(work), std::move(ending));
    }
    void post(std::function<void()> report) override { report(); }
    void finish() override {
        while (waiting() != 0) run(0);
    }

    std::size_t waiting() const { return waiting_.size(); }
    /// Carries out one of the tasks that wait, on a thread of its own, and returns what it threw.
    std::exception_ptr run(std::size_t index) {
        auto [work, ending] = std::move(waiting_.at(index));
        waiting_.erase(waiting_.begin() + static_cast<std::ptrdiff_t>(index));
        std::exception_ptr error;
        std::thread([&work = work, &error] {
            try {
                work();
            } catch (...) {
                error = std::current_exception();
            }
        }).join();
        ending(error);
        return error;
    }

private:
    std::deque<std::pair<Work, Ending>> waiting_;
};
