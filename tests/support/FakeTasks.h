#pragma once

#include "Quillvane/BackgroundTasks.h"

#include <deque>
#include <utility>

/// Background work that is done when the test says so.
class FakeTasks : public BackgroundTasks {
public:
    void start(Work work, Ending ending) override {
        started.push_back({std::move(work), std::move(ending)});
    }
    void post(std::function<void()> report) override { reports.push_back(std::move(report)); }
    void finish() override {
        while (!started.empty()) runNext();
    }
    void runNext() {
        const Task task = std::move(started.front());
        started.pop_front();
        std::exception_ptr error;
        if (beforeWork) beforeWork();
        try {
            task.work();
        } catch (...) {
            error = std::current_exception();
        }
        for (; !reports.empty(); reports.pop_front()) reports.front()();
        task.ending(error);
    }

    struct Task {
        Work work;
        Ending ending;
    };
    std::function<void()> beforeWork;
    std::deque<Task> started;
    std::deque<std::function<void()>> reports;
};
