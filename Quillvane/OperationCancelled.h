#pragma once

#include <exception>
#include <string>

/// An operation ended because it was asked to, and has undone what it had done.
class OperationCancelled : public std::exception {
public:
    std::string errorDescription() const { return what(); }
    const char* what() const noexcept override { return "Cancelled. Nothing was changed."; }
};
