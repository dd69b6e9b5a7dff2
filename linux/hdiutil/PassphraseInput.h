#pragma once

#include "Quillvane/Secret.h"

/// Reads the passphrase from `fd`: every byte up to the first line feed or the end, the line feed
/// left out. Throws `ToolError` when it is longer than 8 KiB, `std::system_error` on I/O.
Secret readPassphrase(int fd);
