#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

/// A command could not be carried out; the text is the reason as the user reads it after
/// "hdiutil: attach failed - ".
///
/// Callers of the tool look for words in that text: "authentication", "passphrase" and "corrupt"
/// mean a wrong password or a damaged image, "busy" an open file. No other reason uses them.
class ToolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;

    static ToolError fromErrno(int error) {
        return ToolError(std::generic_category().message(error));
    }
};

class WrongPassphrase : public ToolError {
public:
    WrongPassphrase() : ToolError("Authentication error") {}
};

/// What is wrong with an image, in general and in detail.
class ImageError : public ToolError {
public:
    ImageError(const std::string& summary, std::string detail)
        : ToolError(summary + " (" + detail + ")"), detail_(std::move(detail)) {}
    const std::string& detail() const noexcept { return detail_; }

private:
    std::string detail_;
};

/// The image was one that this tool opens, and is damaged.
class ImageDamaged : public ImageError {
public:
    explicit ImageDamaged(std::string detail)
        : ImageError("image data corrupted", std::move(detail)) {}
};

/// The file is no image that this tool opens.
class ImageNotSupported : public ImageError {
public:
    explicit ImageNotSupported(std::string detail)
        : ImageError("image not recognized", std::move(detail)) {}
};

/// A signal asked the command to stop.
class Interrupted : public ToolError {
public:
    Interrupted() : ToolError("Operation canceled") {}
};

/// The volume cannot be ejected while files on it are open.
class VolumeBusy : public ToolError {
public:
    explicit VolumeBusy(const std::string& volume)
        : ToolError("couldn't eject \"" + volume + "\" - Resource busy") {}
};

/// The command line was not understood.
class UsageError : public ToolError {
public:
    using ToolError::ToolError;
};
