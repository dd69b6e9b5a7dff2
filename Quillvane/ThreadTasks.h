#pragma once

#include "BackgroundTasks.h"
#include "FileDescriptor.h"

#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>

class QSocketNotifier;

/// Background tasks on threads, one for each. The main thread is the one that makes the object; it
/// needs a running event loop.
///
/// What goes between the threads goes through a queue under a lock; a pipe wakes the event loop.
class ThreadTasks final : public BackgroundTasks {
public:
    /// Throws `std::system_error` when the system has no pipe for us.
    ThreadTasks();
    /// Waits for work that is running; endings and reports that are still due are dropped.
    ~ThreadTasks() override;

    void start(Work work, Ending ending) override;
    void post(std::function<void()> report) override;
    void finish() override;

private:
    struct Task {
        Work work;
        Ending ending;
        std::exception_ptr error;
        std::thread thread;
    };

    void run(std::list<Task>::iterator task);
    void end(std::list<Task>::iterator task);
    bool carryOutNext();
    void carryOutAll();

    std::list<Task> tasks_; ///< main thread only
    std::mutex lock_;
    std::condition_variable posted_;
    std::deque<std::function<void()>> due_; ///< under `lock_`
    FileDescriptor wakeReadEnd_;
    FileDescriptor wakeWriteEnd_;
    std::unique_ptr<QSocketNotifier> notifier_;
};
