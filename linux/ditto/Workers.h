#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// A few threads that work off tasks beside the one that finds them, in no particular order.
class Workers {
public:
    using Task = std::function<void()>;

    /// With fewer threads than asked for, or none, the work is done all the same, but slower.
    explicit Workers(unsigned threads);
    /// Returns when all tasks are done.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    /// Has `task`, which must not throw, done by somebody: by the caller when the others have
    /// enough to do. To be called by one thread only.
    void post(Task task);

private:
    static constexpr std::size_t enough = 64;

    void work();

    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<Task> tasks_;
    bool last_ = false; ///< no more tasks will come
    std::vector<std::thread> threads_;
};
