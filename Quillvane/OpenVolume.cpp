#include "OpenVolume.h"

#include "VaultError.h"

namespace {

MountInfo open(const std::filesystem::path& image, const std::optional<Credential>& credential,
               Cancellation* cancellation) {
    if (!credential) throw VaultError::emptyPassword();
    const Secret line =
        VaultEngine::passwordData(VaultEngine::passphrase(image, *credential, cancellation));
    return VaultEngine::attach(image, line, /*browsable=*/false, cancellation);
}

} // namespace

OpenVolume::OpenVolume(const std::filesystem::path& image,
                       const std::optional<Credential>& credential, Cancellation* cancellation)
    : info_(open(image, credential, cancellation)) {}

OpenVolume::~OpenVolume() {
    if (!isOpen_) return;
    try {
        VaultEngine::detach(info_);
    } catch (const std::exception&) {
        return; // best effort, as the header says
    }
}

void OpenVolume::close() {
    isOpen_ = false;
    VaultEngine::detach(info_);
}
