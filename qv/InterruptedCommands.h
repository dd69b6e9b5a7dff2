#pragma once

#include "qv/Arguments.h"

#include <set>
#include <string>

/// Prints on standard error what was interrupted in the directory of the operand, a line for each
/// that is not in `told`, where it is added. Best effort: a command is not refused because of it.
void tellInterrupted(const std::string& operand, std::set<std::string>& told);

/// `qv finish`: carries an interrupted operation to its end, or without a path lists what was
/// interrupted on standard output. Both throw what the engine's functions throw, `UsageError`, and
/// `std::runtime_error` when nothing was interrupted at the path.
void finishInterrupted(const Arguments& arguments);
/// `qv undo`: brings back what was there before an interrupted operation.
void undoInterrupted(const Arguments& arguments);
