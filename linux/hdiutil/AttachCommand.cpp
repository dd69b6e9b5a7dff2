// Attaching takes two processes: the server unlocks, checks and mounts the image and stays, and
// the command waits for its report. Only the server ever holds the passphrase and the key.

#include "AttachCommand.h"

#include "AttachReport.h"
#include "BlockedSignals.h"
#include "ImageFile.h"
#include "LuksContainer.h"
#include "MountPlace.h"
#include "PassphraseInput.h"
#include "ToolError.h"
#include "VolumeChecker.h"
#include "VolumeServer.h"
#include "linux/MountTable.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The server's report: one of these, then the text of the failure, or device, NUL, mount point.
constexpr char reportReady = 'K';
constexpr char reportFailure = 'E';

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

std::string readAll(int fd) {
    std::string result;
    std::array<char, 4096> buffer{};
    while (true) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return result;
        result.append(buffer.data(), static_cast<std::size_t>(got));
    }
}

// The caller waits for the end of our output, and must not wait for the server's.
void redirectToNothing(std::initializer_list<int> streams) {
    const FileDescriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int stream : streams) {
        if (!nothing || ::dup2(nothing.get(), stream) < 0) throw ToolError::fromErrno(errno);
    }
}

// Whatever the caller has left open, the server must not keep.
void closeAllBut(int kept) {
    ::close_range(STDERR_FILENO + 1, static_cast<unsigned>(kept) - 1, 0);
    ::close_range(static_cast<unsigned>(kept) + 1, ~0U, 0);
}

// While it is waited for, the server ends with the command, by the signal that asks for it.
void followCommand(bool follow) {
    if (::prctl(PR_SET_PDEATHSIG, follow ? SIGTERM : 0) != 0) throw ToolError::fromErrno(errno);
}

MountPlace placeFor(const AttachArguments& arguments, Ext4Volume& volume) {
    if (arguments.mountPoint.empty()) return MountPlace::make(volume.name(), arguments.browsable);
    return MountPlace::existing(arguments.mountPoint);
}

VolumeServer openServer(const AttachArguments& arguments, const BlockedSignals& signals) {
    ImageFile file = openImage(arguments.image);
    const Secret passphrase = readPassphrase(STDIN_FILENO);
    redirectToNothing({STDIN_FILENO});
    LuksContainer::Unlocked container = LuksContainer::unlock(file.fd.get(), passphrase);
    auto image = std::make_unique<EncryptedImage>(file.fd.release(), container.volumeKey,
                                                  container.geometry);
    container.volumeKey.clear();
    signals.check();
    auto volume = openSoundVolume(*image, file.readOnly, signals);
    MountPlace place = placeFor(arguments, *volume);
    return {std::move(image), std::move(volume), std::move(place), file, arguments.mountOptions};
}

// Returns when the volume is closed; an exception is a failure to attach it.
bool serve(const AttachArguments& arguments, FileDescriptor& report) {
    const BlockedSignals signals;
    VolumeServer server = openServer(arguments, signals);
    if (::chdir("/") != 0) throw ToolError::fromErrno(errno);
    redirectToNothing({STDOUT_FILENO, STDERR_FILENO});
    const Attachment attachment = server.attachment();
    const std::string ready =
        reportReady + attachment.device + '\0' + attachment.mountPoint.string();
    // Without a reader, the command was stopped meanwhile, and nobody would know of the volume.
    followCommand(false);
    signals.check();
    if (!writeAll(report.get(), ready)) throw ToolError("nobody waits for the volume");
    report.reset();
    return server.run(signals);
}

[[noreturn]] void serverMain(const AttachArguments& arguments, FileDescriptor report) {
    ::setsid();
    ::umask(0);
    closeAllBut(report.get());
    std::string failure;
    try {
        followCommand(true);
        ::_exit(serve(arguments, report) ? EXIT_SUCCESS : EXIT_FAILURE);
    } catch (const VolumeCorrupt& error) {
        failure = ImageDamaged(error.what()).what();
    } catch (const VolumeNotSupported& error) {
        failure = ImageNotSupported(error.what()).what();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (report) writeAll(report.get(), reportFailure + failure);
    ::_exit(EXIT_FAILURE);
}

Attachment parseReport(const std::string& report) {
    if (report.empty()) throw ToolError("the volume's server ended unexpectedly");
    if (report[0] == reportFailure) throw ToolError(report.substr(1));
    const std::size_t separator = report.find('\0');
    return {report.substr(1, separator - 1), report.substr(separator + 1)};
}

void print(const AttachArguments& arguments, const Attachment& attachment) {
    // The first request is answered only when the server really serves.
    struct statvfs found {};
    if (::statvfs(attachment.mountPoint.c_str(), &found) != 0) throw ToolError::fromErrno(errno);
    const std::string text =
        arguments.plist ? attachReportPlist(attachment) : attachReportLine(attachment);
    if (!writeAll(STDOUT_FILENO, text)) throw ToolError::fromErrno(errno);
}

void removeDeadMountAt(const std::string& mountPoint) {
    const auto mounted = MountTable::current().volume(mountPoint);
    if (mounted && isDeadMount(*mounted)) removeDeadMount(mounted->mountPoint);
}

/// They take away what keeps the other users of the machine safe from a volume's owner, and the
/// owner from them.
void requireRootFor(const MountOptions& options) {
    if (options.any() && ::geteuid() != 0) throw ToolError("-mountoptions is for root only");
}

} // namespace

void runAttach(const AttachArguments& arguments) {
    requireRootFor(arguments.mountOptions);
    removeDeadMounts();
    if (!arguments.mountPoint.empty()) removeDeadMountAt(arguments.mountPoint);

    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw ToolError::fromErrno(errno);
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t server = ::fork();
    if (server < 0) throw ToolError::fromErrno(errno);
    if (server == 0) serverMain(arguments, std::move(writing));
    writing.reset();

    const std::string report = readAll(reading.get());
    if (report.empty() || report[0] == reportFailure) ::waitpid(server, nullptr, 0);
    const Attachment attachment = parseReport(report);
    try {
        print(arguments, attachment);
    } catch (...) {
        ::kill(server, SIGTERM); // nobody would know of the volume
        throw;
    }
}
