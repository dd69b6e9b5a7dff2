#pragma once

#include <et/com_err.h>

/// Ends the running file-system operation with `error` (an errno) as `std::system_error`.
[[noreturn]] void failWith(int error);

/// The errno that stands for a libext2fs error code; libext2fs passes errno values through.
int errnoOf(errcode_t code);

/// Throws `std::system_error` unless `code` is 0.
void check(errcode_t code);
