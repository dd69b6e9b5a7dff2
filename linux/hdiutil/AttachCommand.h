#pragma once

#include "Arguments.h"

/// Attaches the image, with the passphrase from standard input, and prints where. A process of its
/// own goes on serving the volume. Throws `ToolError`, `std::system_error`.
void runAttach(const AttachArguments& arguments);
