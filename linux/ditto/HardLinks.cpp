#include "linux/ditto/HardLinks.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <string_view>

namespace {

EntryIdentity identityOf(const Status& status) {
    return {status.device, status.inode};
}

} // namespace

bool LinkMaker::link(const Entry& entry) {
    if (entry.status.links < 2) return false;
    const auto found = files_.find(identityOf(entry.status));
    if (found == files_.end()) return false;

    // A path of any length is walked in pieces that the kernel takes.
    FileDescriptor piece;
    std::string_view rest = found->second.path;
    int from = destination_;
    while (rest.size() >= PATH_MAX) {
        const std::size_t cut = rest.rfind('/', PATH_MAX - 1);
        const std::string part(rest.substr(0, cut));
        piece = FileDescriptor(openat(from, part.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!piece.open()) fail(Side::destination, "cannot be linked");
        from = piece.get();
        rest.remove_prefix(cut + 1);
    }
    if (linkat(from, std::string(rest).c_str(), entry.destination, entry.name, 0) != 0) {
        fail(Side::destination, "cannot be linked");
    }
    if (--found->second.namesLeft == 0) files_.erase(found);
    return true;
}

void LinkMaker::copied(const Entry& entry) {
    if (entry.status.links < 2) return;
    files_.insert_or_assign(
        identityOf(entry.status),
        Copied{std::string(entry.path.substr(entry.belowRoot)), entry.status.links - 1});
}

bool LinkChecker::check(const Entry& entry, const Status& copy) {
    if (entry.status.links < 2) {
        if (copy.links != 1) throw Difference("has links in the copy that the original has not");
        return false;
    }
    const std::lock_guard lock(mutex_);
    const auto [at, first] = files_.try_emplace(
        identityOf(entry.status), Seen{copy.inode, copy.links, 0, std::string(entry.path)});
    ++at->second.names;
    if (entry.path < at->second.path) at->second.path = entry.path;
    if (at->second.copyInode != copy.inode) throw Difference("is not linked in the copy");
    return !first;
}

void LinkChecker::finish(Report& report) const {
    for (const auto& [original, seen] : files_) {
        if (seen.names != seen.copyLinks) {
            report.problem(seen.path, "has links in the copy that the original has not");
        }
    }
}
