#pragma once

#include <filesystem>
#include <memory>
#include <string>

struct fuse_lowlevel_ops;
struct fuse_session;

struct FuseSessionDeleter {
    void operator()(fuse_session* session) const noexcept;
};
/// A mounted file system that nobody serves yet. Destroyed, it closes the connection to the kernel
/// and leaves the mount alone.
using FuseSession = std::unique_ptr<fuse_session, FuseSessionDeleter>;

/// Mounts at `mountPoint`; `options` is a list as after "-o", its values quoted by
/// `fuseOptionValue`. `operations` is copied, `userData` handed to every one of them. Null when it
/// cannot be mounted; libfuse has told standard error why.
FuseSession mountFuse(const std::filesystem::path& mountPoint, const std::string& options,
                      const fuse_lowlevel_ops& operations, void* userData);

/// `text` as the value of an option: a comma would end it, a backslash quotes.
std::string fuseOptionValue(const std::string& text);
