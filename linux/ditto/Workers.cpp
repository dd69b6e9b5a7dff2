#include "linux/ditto/Workers.h"

#include <system_error>
#include <utility>

Workers::Workers(unsigned threads) {
    try {
        while (threads_.size() < threads) threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
        // The system has no more threads for us; whoever posts works, too.
    }
}

Workers::~Workers() {
    {
        const std::lock_guard lock(mutex_);
        last_ = true;
    }
    posted_.notify_all();
    work();
    for (std::thread& thread : threads_) thread.join();
}

void Workers::post(Task task) {
    {
        const std::lock_guard lock(mutex_);
        if (tasks_.size() < enough) {
            tasks_.push_back(std::move(task));
            task = nullptr;
        }
    }
    if (task) return task();
    posted_.notify_one();
}

void Workers::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        posted_.wait(lock, [this] { return last_ || !tasks_.empty(); });
        if (tasks_.empty()) return;
        const Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}
