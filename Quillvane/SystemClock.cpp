#include "SystemClock.h"

#include <utility>

Clock::Time SystemClock::now() const {
    return std::chrono::system_clock::now();
}

void SystemClock::repeat(std::chrono::seconds interval, std::function<void()> tick) {
    auto timer = std::make_unique<QTimer>();
    QObject::connect(timer.get(), &QTimer::timeout, std::move(tick));
    timer->start(interval);
    timers_.push_back(std::move(timer));
}
