#include "ProcessLaunchError.h"

#include <utility>

ProcessLaunchError::ProcessLaunchError(std::string tool, std::string underlying)
    : tool_(std::move(tool)), underlying_(std::move(underlying)),
      description_("Couldn't launch " + tool_ + ". " + underlying_) {}
