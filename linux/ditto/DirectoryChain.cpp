#include "linux/ditto/DirectoryChain.h"

#include "linux/ditto/Node.h"

#include <fcntl.h>

DirectoryChain::DirectoryChain(Side side, int root)
    : side_(side), root_(root), rootStatus_(statusAt(side, root, "")) {}

void DirectoryChain::descend(const char* name) {
    Level level;
    level.fd = openToRead(side_, fd(), name, O_DIRECTORY);
    level.status = statusAt(side_, level.fd.get(), "");
    levels_.push_back(std::move(level));
    if (levels_.size() > openLevels) levels_[levels_.size() - openLevels - 1].fd.close();
}

void DirectoryChain::ascend() {
    if (levels_.size() >= 2) {
        Level& above = levels_[levels_.size() - 2];
        if (!above.fd.open()) {
            above.fd = openToRead(side_, fd(), "..", O_DIRECTORY);
            if (!statusAt(side_, above.fd.get(), "").sameEntry(above.status)) {
                throw Difference("was moved while it was being copied");
            }
        }
    }
    levels_.pop_back();
}
