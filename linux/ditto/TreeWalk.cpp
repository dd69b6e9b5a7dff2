#include "linux/ditto/TreeWalk.h"

#include "linux/ditto/DirectoryListing.h"

#include <string_view>

namespace {

/// 64 bits of FNV-1a over the names on the way, each ended by a zero byte, which no name contains.
std::uint64_t hashBelow(std::uint64_t parent, std::string_view name) {
    constexpr std::uint64_t prime = 0x100000001b3;
    for (const char c : name) parent = (parent ^ static_cast<unsigned char>(c)) * prime;
    return parent * prime;
}

constexpr std::uint64_t rootHash = 0xcbf29ce484222325;

} // namespace

TreeWalk::TreeWalk(int source, int destination, std::string rootName, Report& report)
    : source_(Side::source, source), device_(source_.status().device), path_(std::move(rootName)),
      belowRoot_(path_.size() + 1), report_(report) {
    if (destination != none) destination_.emplace(Side::destination, destination);
}

void TreeWalk::run(TreeVisitor& visitor) {
    visitor_ = &visitor;
    attempt([&] { openLevel(rootHash); });
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.next == level.names.size()) {
            leaveDirectory();
        } else {
            step(level.names[level.next++]);
        }
    }
}

/// Runs `action` for the entry at the current path; false when it failed, which is then reported.
template <typename Action> bool TreeWalk::attempt(Action action) {
    try {
        action();
        return true;
    } catch (const FileError& error) {
        report_.problem(path_, error.what());
        if (error.endsCopy()) throw CopyEnded();
    } catch (const Difference& difference) {
        report_.problem(path_, difference.what());
    }
    return false;
}

void TreeWalk::step(const std::string& name) {
    const std::size_t pathLength = path_.size();
    const std::size_t depth = levels_.size();
    const std::uint64_t pathHash = hashBelow(levels_.back().pathHash, name);
    path_.append(1, '/').append(name);
    attempt([&] {
        const Status status = statusAt(Side::source, source_.fd(), name.c_str());
        refuseOtherFileSystem(status);
        if (status.isDirectory()) {
            enterDirectory(name.c_str(), pathHash);
        } else {
            visitor_->file(entry(name.c_str(), pathHash, status));
        }
    });
    if (levels_.size() == depth) path_.resize(pathLength);
}

void TreeWalk::enterDirectory(const char* name, std::uint64_t pathHash) {
    const int parent = source_.fd();
    const int parentCopy = destinationFd();
    source_.descend(name);
    bool bothOpen = false;
    try {
        // What was opened may be another entry than the one examined before.
        refuseOtherFileSystem(source_.status());
        visitor_->prepare(
            {name, path_, belowRoot_, pathHash, source_.status(), parent, parentCopy});
        if (destination_) destination_->descend(name);
        bothOpen = true;
        openLevel(pathHash);
    } catch (...) {
        // Neither can fail: the directory just above is always open.
        source_.ascend();
        if (bothOpen && destination_) destination_->ascend();
        throw;
    }
}

void TreeWalk::openLevel(std::uint64_t pathHash) {
    levels_.push_back(
        {source_.status(), listDirectory(Side::source, source_.fd()), 0, path_.size(), pathHash});
    const Level& level = levels_.back();
    attempt([&] { visitor_->enter(entry("", pathHash, level.status), level.names); });
}

void TreeWalk::leaveDirectory() {
    const Level& level = levels_.back();
    attempt([&] { visitor_->leave(entry("", level.pathHash, level.status)); });
    levels_.pop_back();
    if (levels_.empty()) return;
    // Without the directory above there is no way to go on.
    if (!attempt([&] { ascend(); })) throw CopyEnded();
    path_.resize(levels_.back().pathLength);
}

void TreeWalk::ascend() {
    source_.ascend();
    if (destination_) destination_->ascend();
}

Entry TreeWalk::entry(const char* name, std::uint64_t pathHash, const Status& status) const {
    return {name, path_, belowRoot_, pathHash, status, source_.fd(), destinationFd()};
}

void TreeWalk::refuseOtherFileSystem(const Status& status) const {
    // The files of an overlay may have other device numbers than its directories.
    const bool otherDevice = status.isDirectory() && status.device != device_;
    if (otherDevice || status.mountRoot) {
        throw Difference("is on another file system");
    }
}
