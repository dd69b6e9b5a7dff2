#include "TaskScope.h"

#include <utility>

void TaskScope::start(BackgroundTasks::Work work, BackgroundTasks::Ending ending) {
    tasks_.start(std::move(work), [alive = std::weak_ptr(alive_),
                                   ending = std::move(ending)](const std::exception_ptr& error) {
        if (!alive.expired()) ending(error);
    });
}

ProgressCallback TaskScope::reporter(ProgressCallback show) {
    // The tasks, not this object, are used on the other thread.
    const auto shared = std::make_shared<ProgressCallback>(std::move(show));
    return [&tasks = tasks_, alive = std::weak_ptr(alive_), shared](const Progress& progress) {
        tasks.post([alive, shared, progress] {
            if (!alive.expired()) (*shared)(progress);
        });
    };
}

std::function<void()> TaskScope::guarded(std::function<void()> function) const {
    return [alive = std::weak_ptr(alive_), function = std::move(function)] {
        if (!alive.expired()) function();
    };
}
