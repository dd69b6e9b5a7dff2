#pragma once

#include "Cancellation.h"
#include "OperationCancelled.h"
#include "Progress.h"

#include <algorithm>
#include <string>

/// What the long operations share: reports whose fraction never goes back, and the end on request.
class OperationProgress {
public:
    /// Both must outlive the object; `cancellation` may be null.
    OperationProgress(const ProgressCallback& callback, Cancellation* cancellation)
        : callback_(callback), cancellation_(cancellation) {}

    void report(double fraction, const std::string& message) {
        highest_ = std::max(highest_, fraction);
        callback_({highest_, message, cancellable_});
    }
    /// A copy's own fraction: it fills the bar from 0.3 to 0.8. The message is `prefix` and the
    /// whole percentage.
    void reportCopy(double copied, const std::string& prefix) {
        highestCopied_ = std::max(highestCopied_, copied);
        report(0.3 + 0.5 * highestCopied_,
               prefix + std::to_string(static_cast<int>(100 * highestCopied_)) + "%");
    }
    /// Throws `OperationCancelled` when the end was requested.
    void stopIfCancelled() const {
        if (cancellation_ != nullptr && cancellation_->requested()) throw OperationCancelled();
    }
    /// The point of no return: throws `OperationCancelled` when the end was requested; from here on
    /// it can't be any more, and every report says so.
    void commit() {
        if (cancellation_ != nullptr) cancellation_->commit();
        cancellable_ = false;
    }
    Cancellation* cancellation() const noexcept { return cancellation_; }

private:
    const ProgressCallback& callback_;
    Cancellation* cancellation_;
    bool cancellable_ = true;
    double highest_ = 0;
    double highestCopied_ = 0;
};
