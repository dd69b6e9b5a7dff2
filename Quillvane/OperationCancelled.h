#pragma once

#include <exception>
#include <string>

/// An operation ended because it was asked to, and has undone what it had done.
class OperationCancelled : public std::exception {
public:
    OperationCancelled() = default;
    /// It couldn't undo everything: that is left to `InterruptedWork`.
    static OperationCancelled leavingSomething() { return OperationCancelled(false); }

    std::string errorDescription() const { return what(); }
    const char* what() const noexcept override {
        return undone_ ? "Cancelled. Nothing was changed."
                       : "Cancelled. Some of it couldn't be cleaned up; Quillvane will offer to do "
                         "so.";
    }

private:
    explicit OperationCancelled(bool undone) : undone_(undone) {}

    bool undone_ = true;
};
