#pragma once

#include <exception>
#include <functional>

/// Runs blocking work away from the main thread and brings what comes of it back.
///
/// `post` may be called on any thread, everything else on the main thread alone.
class BackgroundTasks {
public:
    using Work = std::function<void()>;
    using Ending = std::function<void(const std::exception_ptr&)>;

    BackgroundTasks() = default;
    virtual ~BackgroundTasks() = default;
    BackgroundTasks(const BackgroundTasks&) = delete;
    BackgroundTasks& operator=(const BackgroundTasks&) = delete;

    /// Runs `work` on a background thread, then `ending` on the main thread with what `work` threw,
    /// or null. Both are destroyed on the main thread.
    virtual void start(Work work, Ending ending) = 0;
    /// Runs `report` on the main thread, after all that was posted before it.
    virtual void post(std::function<void()> report) = 0;
    /// Returns when no work is running any more and every ending and report has been carried out,
    /// those included that came meanwhile.
    virtual void finish() = 0;
};
