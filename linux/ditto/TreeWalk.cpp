#include "linux/ditto/TreeWalk.h"

#include "linux/ditto/DirectoryListing.h"

#include <string_view>
#include <utility>

namespace {

/// 64 bits of FNV-1a over the names on the way, each ended by a zero byte, which no name contains.
std::uint64_t hashBelow(std::uint64_t parent, std::string_view name) {
    constexpr std::uint64_t prime = 0x100000001b3;
    for (const char c : name) parent = (parent ^ static_cast<unsigned char>(c)) * prime;
    return parent * prime;
}

constexpr std::uint64_t rootHash = 0xcbf29ce484222325;

/// Threads beside the one that walks. Two processors are busy with twice as many threads, as these
/// wait much; the volume's own server has no more than four.
constexpr unsigned helpers = 3;

} // namespace

TreeWalk::TreeWalk(int source, int destination, std::string rootName, Report& report)
    : source_(Side::source, source), device_(source_.status().device), path_(std::move(rootName)),
      belowRoot_(path_.size() + 1), report_(report) {
    if (destination != none) destination_.emplace(Side::destination, destination);
}

void TreeWalk::run(TreeVisitor& visitor) {
    visitor_ = &visitor;
    if (destination_) workers_.emplace(helpers);
    walk();
    workers_.reset(); // all files are done
    if (unexpected_) std::rethrow_exception(unexpected_);
    if (ended_) throw CopyEnded();
}

void TreeWalk::walk() {
    attempt(path_, [&] { openLevel(rootHash); });
    while (!levels_.empty() && !ended_) {
        Level& level = levels_.back();
        if (level.next == level.names.size()) {
            leaveDirectory();
        } else {
            step(level.names[level.next++]);
        }
    }
}

/// Runs `action` for the entry at `path`; false when it failed, which is then reported.
template <typename Action> bool TreeWalk::attempt(std::string_view path, Action action) noexcept {
    try {
        action();
        return true;
    } catch (const FileError& error) {
        reportFailure(path, error.what(), error.endsCopy());
    } catch (const Difference& difference) {
        reportFailure(path, difference.what(), false);
    } catch (...) {
        const std::lock_guard lock(failing_);
        if (!unexpected_) unexpected_ = std::current_exception();
        ended_ = true;
    }
    return false;
}

/// What fails after the end is a consequence of it, and nothing new.
void TreeWalk::reportFailure(std::string_view path, const char* text, bool endsCopy) {
    const std::lock_guard lock(failing_);
    if (ended_) return;
    report_.problem(path, text);
    if (endsCopy) ended_ = true;
}

void TreeWalk::step(const std::string& name) {
    const std::size_t pathLength = path_.size();
    const std::size_t depth = levels_.size();
    const std::uint64_t pathHash = hashBelow(levels_.back().folder->pathHash, name);
    path_.append(1, '/').append(name);
    attempt(path_, [&] {
        const Status status = statusAt(Side::source, source_.fd(), name.c_str());
        refuseOtherFileSystem(status);
        if (status.isDirectory()) {
            enterDirectory(name.c_str(), pathHash);
        } else if (workers_) {
            handOver(name, pathHash, status);
        } else {
            visitor_->file(entry(name.c_str(), pathHash, status));
        }
    });
    if (levels_.size() == depth) path_.resize(pathLength);
}

void TreeWalk::handOver(const std::string& name, std::uint64_t pathHash, const Status& status) {
    const std::shared_ptr<Folder> folder = levels_.back().folder;
    ++folder->unfinished;
    workers_->post([this, name, path = path_, pathHash, status, folder, place = place()] {
        if (!ended_) {
            attempt(path, [&] {
                visitor_->file({name.c_str(), path, belowRoot_, pathHash, status,
                                place.source->get(), place.destination->get()});
            });
        }
        finishOne(*folder, place);
    });
}

void TreeWalk::enterDirectory(const char* name, std::uint64_t pathHash) {
    const Place above = place();
    source_.descend(name);
    bool bothOpen = false;
    try {
        // What was opened may be another entry than the one examined before.
        refuseOtherFileSystem(source_.status());
        visitor_->prepare({name, path_, belowRoot_, pathHash, source_.status(), above.source->get(),
                           above.destination ? above.destination->get() : none});
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
    auto names = listDirectory(Side::source, source_.fd());
    auto folder = std::make_shared<Folder>(source_.status(), pathHash);
    levels_.push_back({std::move(folder), std::move(names), 0, path_.size()});
    const Level& level = levels_.back();
    attempt(path_,
            [&] { visitor_->enter(entry("", pathHash, level.folder->status), level.names); });
}

void TreeWalk::leaveDirectory() {
    const std::shared_ptr<Folder> folder = levels_.back().folder;
    folder->path = path_;
    finishOne(*folder, place());
    levels_.pop_back();
    if (levels_.empty()) return;
    // Without the directory above there is no way to go on.
    if (!attempt(path_, [&] { ascend(); })) ended_ = true;
    path_.resize(levels_.back().pathLength);
}

/// To be called when the walk, or the work on a file, has done with the directory.
void TreeWalk::finishOne(Folder& folder, const Place& place) noexcept {
    if (--folder.unfinished != 0 || ended_) return;
    attempt(folder.path, [&] {
        visitor_->leave({"", folder.path, belowRoot_, folder.pathHash, folder.status,
                         place.source->get(), place.destination ? place.destination->get() : none});
    });
}

void TreeWalk::ascend() {
    source_.ascend();
    if (destination_) destination_->ascend();
}

TreeWalk::Place TreeWalk::place() const {
    return {source_.handle(), destination_ ? destination_->handle() : nullptr};
}

Entry TreeWalk::entry(const char* name, std::uint64_t pathHash, const Status& status) const {
    const int destination = destination_ ? destination_->fd() : none;
    return {name, path_, belowRoot_, pathHash, status, source_.fd(), destination};
}

void TreeWalk::refuseOtherFileSystem(const Status& status) const {
    // The files of an overlay may have other device numbers than its directories.
    const bool otherDevice = status.isDirectory() && status.device != device_;
    if (otherDevice || status.mountRoot) {
        throw Difference("is on another file system");
    }
}
