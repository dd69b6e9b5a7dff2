#pragma once

#include <exception>

/// A failure that the user has been told of already.
class QuietFailure : public std::exception {
public:
    const char* what() const noexcept override { return "failed"; }
};
