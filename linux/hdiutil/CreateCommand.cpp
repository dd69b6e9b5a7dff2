#include "CreateCommand.h"

#include "BlockedSignals.h"
#include "ImageFile.h"
#include "LuksContainer.h"
#include "MountPlace.h"
#include "PassphraseInput.h"
#include "ToolError.h"
#include "VolumeFormatter.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int duplicate(int fd) {
    const int result = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (result < 0) throw ToolError::fromErrno(errno);
    return result;
}

} // namespace

void runCreate(const CreateArguments& arguments) {
    const Secret passphrase = readPassphrase(STDIN_FILENO);
    if (passphrase.empty()) throw ToolError("an empty passphrase protects nothing");
    ::umask(077);
    const BlockedSignals signals;
    // Nobody would wait for the image any more.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) throw ToolError::fromErrno(errno);
    removeDeadMounts();

    NewImageFile file(arguments.image);
    const auto length =
        static_cast<off_t>(LuksContainer::payloadOffset + payloadFor(arguments.size));
    if (::ftruncate(file.fd(), length) != 0) throw ToolError::fromErrno(errno);
    LuksContainer::Unlocked container = LuksContainer::format(file.fd(), passphrase);
    EncryptedImage image(duplicate(file.fd()), container.volumeKey, container.geometry);
    container.volumeKey.clear();
    formatVolume(image, arguments.volumeName, signals);
    image.sync();
    signals.check();
    file.keep();
}
