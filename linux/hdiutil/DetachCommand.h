#pragma once

#include "Arguments.h"

/// Ends an attached volume; returns when everything is on the disk, the server has ended and the
/// image is free. Throws `VolumeBusy` when files on it are open and `-force` is not given,
/// `ToolError` and `std::system_error` otherwise.
void runDetach(const DetachArguments& arguments);
