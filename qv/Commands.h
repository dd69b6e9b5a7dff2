#pragma once

#include "qv/Arguments.h"

/// Carries out one of the commands: asks for its secrets, runs the engine's operation with
/// progress on standard error and prints the result. Throws what the operation throws,
/// `UsageError` when the secrets cannot be asked for, and `std::runtime_error`.
void runCommand(const Arguments& arguments);
