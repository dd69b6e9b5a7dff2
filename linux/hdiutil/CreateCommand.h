#pragma once

#include "Arguments.h"

/// Makes the image; the passphrase is on standard input. Nothing is left of one that could not be
/// finished. Throws `ToolError`, `std::system_error`.
void runCreate(const CreateArguments& arguments);
