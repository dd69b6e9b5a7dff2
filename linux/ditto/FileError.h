#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

/// Which of the two folders an operation was on.
enum class Side { source, destination };

/// An operation on one entry failed. `what()` is a text for the user, without the entry's name.
class FileError : public std::system_error {
public:
    FileError(Side side, int error, const std::string& text)
        : std::system_error(error, std::generic_category(), text), side_(side) {}

    /// True when the destination takes nothing more, so that going on would only repeat it.
    bool endsCopy() const noexcept {
        switch (code().value()) {
        case ENOSPC:
        case EDQUOT:
        case EROFS:
        case ENOTCONN:
            return true;
        case EIO:
            return side_ == Side::destination;
        default:
            return false;
        }
    }

private:
    Side side_;
};

/// The copy is not what the original is, or the original did not stay what it was.
class Difference : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;

    static Difference changed() { return Difference("changed while it was being copied"); }
};

/// Thrown after the cause has been reported: there is no point in going on.
class CopyEnded : public std::exception {
public:
    const char* what() const noexcept override { return "the copy was ended"; }
};

/// Throws FileError with the current errno.
[[noreturn]] inline void fail(Side side, const std::string& text) {
    throw FileError(side, errno, text);
}
