#include "linux/ditto/DirectoryChain.h"

#include "linux/ditto/Node.h"

#include <fcntl.h>

#include <utility>

namespace {

DirectoryChain::Handle share(FileDescriptor fd) {
    return std::make_shared<const FileDescriptor>(std::move(fd));
}

} // namespace

DirectoryChain::DirectoryChain(Side side, int root) : side_(side) {
    FileDescriptor own(fcntl(root, F_DUPFD_CLOEXEC, 0));
    if (!own.open()) fail(side, "cannot be opened");
    levels_.push_back({share(std::move(own)), statusAt(side, root, "")});
}

void DirectoryChain::descend(const char* name) {
    FileDescriptor opened = openToRead(side_, fd(), name, O_DIRECTORY);
    const Status status = statusAt(side_, opened.get(), "");
    levels_.push_back({share(std::move(opened)), status});
    if (levels_.size() > openLevels) levels_[levels_.size() - openLevels - 1].handle.reset();
}

void DirectoryChain::ascend() {
    Level& above = levels_[levels_.size() - 2];
    if (!above.handle) {
        FileDescriptor reopened = openToRead(side_, fd(), "..", O_DIRECTORY);
        if (!statusAt(side_, reopened.get(), "").sameEntry(above.status)) {
            throw Difference("was moved while it was being copied");
        }
        above.handle = share(std::move(reopened));
    }
    levels_.pop_back();
}
