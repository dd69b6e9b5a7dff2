#include "Unmount.h"

#include "ChildProgram.h"
#include "linux/MountTable.h"

#include <algorithm>
#include <cerrno>
#include <sys/mount.h>
#include <system_error>

namespace {

void throwError(int error, const std::filesystem::path& mountPoint) {
    throw std::system_error(error, std::generic_category(), mountPoint.string());
}

bool contains(const std::string& text, const char* words) {
    return text.find(words) != std::string::npos;
}

void unmountByHelper(const std::filesystem::path& mountPoint, bool lazily) {
    const ProgramResult result =
        runProgram(FUSERMOUNT_PROGRAM, {lazily ? "-uz" : "-u", "--", mountPoint.string()});
    if (result.status == 0) return;
    // The program has one exit status for every failure.
    if (contains(result.output, "busy")) throwError(EBUSY, mountPoint);
    if (contains(result.output, "not found") || contains(result.output, "Invalid argument"))
        throwError(EINVAL, mountPoint);
    throwError(EPERM, mountPoint);
}

void unmountWith(const std::filesystem::path& mountPoint, bool lazily) {
    const int flags = UMOUNT_NOFOLLOW | (lazily ? MNT_DETACH : 0);
    if (::umount2(mountPoint.c_str(), flags) == 0) return;
    if (errno != EPERM) throwError(errno, mountPoint);
    unmountByHelper(mountPoint, lazily);
}

// The path of a mount may be another by the time that it is used, or the mount gone.
bool maybeMoved(const std::system_error& error) {
    return error.code().value() == EINVAL || error.code().value() == ENOENT;
}

void unmountAllIn(const MountTable& table, const MountEntry& volume, bool lazily) {
    auto mounts = table.mountsOf(volume);
    std::ranges::reverse(mounts);
    for (const MountEntry& mount : mounts) {
        // By path, it would hit what is on top.
        if (!table.at(mount.mountPoint)->isSameVolume(volume)) throwError(EBUSY, mount.mountPoint);
        unmountWith(mount.mountPoint, lazily);
    }
}

} // namespace

void unmount(const std::filesystem::path& mountPoint) {
    unmountWith(mountPoint, false);
}

void unmountLazily(const std::filesystem::path& mountPoint) {
    unmountWith(mountPoint, true);
}

void unmountEverywhere(const MountEntry& volume, bool lazily) {
    for (int attemptsLeft = 5; attemptsLeft > 0; --attemptsLeft) {
        try {
            return unmountAllIn(MountTable::current(), volume, lazily);
        } catch (const std::system_error& error) {
            if (attemptsLeft == 1 || !maybeMoved(error)) throw;
        }
    }
}
