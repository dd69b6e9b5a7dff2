#pragma once

#include "InterruptedWork.h"

namespace InterruptedWork {

/// `undo` as the first half of something that goes on after it, and can still be cancelled then.
Outcome undoFirstHalf(const Found& found, const std::optional<Credential>& credential,
                      const ProgressCallback& progress, Cancellation* cancellation);

} // namespace InterruptedWork
