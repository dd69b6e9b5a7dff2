#include "RunningOperation.h"

void RunningOperation::begin() {
    phase_ = Phase::cancellable;
    cancellation_ = std::make_shared<Cancellation>();
}

void RunningOperation::end() {
    phase_ = Phase::none;
    cancellation_.reset();
}

bool RunningOperation::cancel() {
    if (!cancellation_) return false;
    // It may have gone past its point of no return without having told so yet.
    const bool isHeard = cancellation_->request();
    phase_ = isHeard ? Phase::cancelling : Phase::committed;
    return isHeard;
}

bool RunningOperation::hears(const Progress& progress) {
    if (phase_ == Phase::cancelling) return false;
    if (phase_ == Phase::cancellable && !progress.cancellable) phase_ = Phase::committed;
    return true;
}
