#pragma once

#include "Cancellation.h"
#include "Progress.h"

#include <memory>

/// Whether what runs in the background can still be cancelled, as the user is told it.
///
/// For the main thread; the operation itself shares the `Cancellation`.
class RunningOperation {
public:
    /// One begins that can be cancelled.
    void begin();
    void end();
    /// What it is to look at; null when none runs.
    const std::shared_ptr<Cancellation>& cancellation() const { return cancellation_; }
    bool isRunning() const { return cancellation_ != nullptr; }

    /// True until the user has cancelled it, or it is past its point of no return.
    bool isCancellable() const { return phase_ == Phase::cancellable; }
    bool isCommitted() const { return phase_ == Phase::committed; }
    /// True when it is going to stop.
    bool cancel();
    /// False for a report that comes after it was cancelled, and is not worth showing.
    bool hears(const Progress& progress);

private:
    enum class Phase { none, cancellable, cancelling, committed };

    Phase phase_ = Phase::none;
    std::shared_ptr<Cancellation> cancellation_;
};
