#include "MountWatcher.h"

// How no change is lost. The kernel counts changes of the mounts and keeps, in each open mountinfo,
// the count that was last told by poll; at first that is the count at open. So whatever changes
// after open, even before the first poll, makes a poll answer. Reading tells the kernel nothing,
// and poll is always before the reading that it leads to: a change falls before the reading, which
// then shows it, or it makes poll answer again.
//
// A table of more than a page is read in several steps, and a change in between can hide a mount
// that is still there. So a reading counts only when nothing changed meanwhile.

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

using Path = std::filesystem::path;

constexpr int settleMilliseconds = 20;

bool hasVolume(const MountTable& table, const Path& mountPoint) {
    return std::ranges::any_of(table.entries(), [&](const MountEntry& entry) {
        return entry.type == MountTable::volumeType && entry.mountPoint == mountPoint;
    });
}

} // namespace

std::vector<Path> vanishedVolumes(const MountTable& before, const MountTable& after) {
    std::vector<Path> vanished;
    for (const MountEntry& entry : before.entries()) {
        if (entry.type == MountTable::volumeType && !hasVolume(after, entry.mountPoint) &&
            std::ranges::find(vanished, entry.mountPoint) == vanished.end())
            vanished.push_back(entry.mountPoint);
    }
    return vanished;
}

MountWatcher::MountWatcher() : file_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
    if (!file_) return;
    again_.setSingleShot(true);
    again_.setInterval(settleMilliseconds);
    connect(&again_, &QTimer::timeout, this, &MountWatcher::compare);
    changes_ = std::make_unique<QSocketNotifier>(file_.get(), QSocketNotifier::Exception);
    connect(changes_.get(), &QSocketNotifier::activated, this, &MountWatcher::compare);
    compare();
}

void MountWatcher::compare() {
    MountTable now("");
    try {
        now = read();
    } catch (const std::system_error&) {
        again_.start(); // out of memory, say: what is known stays as it is until it can be read
        return;
    }
    if (changedAgain()) {
        again_.start();
        return;
    }
    const auto vanished = vanishedVolumes(known_, now);
    known_ = std::move(now);
    for (const Path& mountPoint : vanished) emit unmounted(mountPoint);
}

MountTable MountWatcher::read() const {
    std::string text;
    std::array<char, 16384> piece; // NOLINT: filled by pread
    for (;;) {
        const ssize_t got =
            ::pread(file_.get(), piece.data(), piece.size(), static_cast<off_t>(text.size()));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw std::system_error(errno, std::generic_category());
        if (got == 0) return MountTable(text);
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
}

bool MountWatcher::changedAgain() const {
    pollfd change{file_.get(), POLLPRI, 0};
    return ::poll(&change, 1, 0) > 0;
}
