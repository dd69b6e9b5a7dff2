#pragma once

#include "BackgroundTasks.h"
#include "Progress.h"

#include <memory>

/// Background work on behalf of one object on the main thread, of which it is a member: what comes
/// back after the object's end is dropped.
class TaskScope {
public:
    /// `tasks` must outlive the work that is started.
    explicit TaskScope(BackgroundTasks& tasks) : tasks_(tasks) {}
    TaskScope(const TaskScope&) = delete;
    TaskScope& operator=(const TaskScope&) = delete;

    /// As `BackgroundTasks::start`.
    void start(BackgroundTasks::Work work, BackgroundTasks::Ending ending);
    /// A receiver of reports on any thread, which hands them to `show` on the main thread.
    ProgressCallback reporter(ProgressCallback show);
    /// `function`, which does nothing any more after the object's end. To be called on the main
    /// thread.
    std::function<void()> guarded(std::function<void()> function) const;

private:
    BackgroundTasks& tasks_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};
