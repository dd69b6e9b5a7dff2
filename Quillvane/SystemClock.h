#pragma once

#include "Clock.h"

#include <QTimer>

#include <memory>
#include <vector>

/// The computer's clock, and timers of the event loop. Needs a running event loop.
class SystemClock final : public Clock {
public:
    Time now() const override;
    void repeat(std::chrono::seconds interval, std::function<void()> tick) override;

private:
    std::vector<std::unique_ptr<QTimer>> timers_;
};
