#pragma once

#include "VaultEngine.h"

#include <filesystem>
#include <optional>

/// The volume in an image, open out of the user's sight while the object lives.
class OpenVolume {
public:
    /// Throws what `VaultEngine::passphrase` and `attach` throw, and `VaultError` (emptyPassword)
    /// without a credential.
    OpenVolume(const std::filesystem::path& image, const std::optional<Credential>& credential,
               Cancellation* cancellation);
    /// Closes it, best effort: an error that brought us here is the one to tell.
    ~OpenVolume();
    OpenVolume(const OpenVolume&) = delete;
    OpenVolume& operator=(const OpenVolume&) = delete;

    std::filesystem::path root() const { return info_.mountPoint; }
    /// Throws what `VaultEngine::detach` throws.
    void close();

private:
    MountInfo info_;
    bool isOpen_ = true;
};
