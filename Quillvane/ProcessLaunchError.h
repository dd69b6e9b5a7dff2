#pragma once

#include <exception>
#include <string>

/// A tool could not be started.
class ProcessLaunchError : public std::exception {
public:
    /// `tool`: the last component of the executable's path; `underlying`: the system's text.
    ProcessLaunchError(std::string tool, std::string underlying);

    const std::string& tool() const noexcept { return tool_; }
    const std::string& underlying() const noexcept { return underlying_; }
    /// The sentence for the user.
    const std::string& errorDescription() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

private:
    std::string tool_;
    std::string underlying_;
    std::string description_;
};
