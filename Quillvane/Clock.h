#pragma once

#include <chrono>
#include <functional>

/// Where a long-lived object takes its time from. For the main thread.
class Clock {
public:
    using Time = std::chrono::system_clock::time_point;

    Clock() = default;
    virtual ~Clock() = default;
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    virtual Time now() const = 0;
    /// Calls `tick` on the main thread every `interval` as long as the clock lives.
    virtual void repeat(std::chrono::seconds interval, std::function<void()> tick) = 0;
};
