#pragma once

#include "InterruptedWork.h"

#include <string>

namespace InterruptedWork {

/// What a button says that finishes it, or undoes it; empty where there is no such choice.
std::string finishLabel(const Found& found);
std::string undoLabel(const Found& found);
/// Whether there is something to decide, which can be put off; if not, the user need only know.
bool isChoice(const Found& found) noexcept;

} // namespace InterruptedWork
