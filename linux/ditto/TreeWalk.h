#pragma once

#include "linux/ditto/DirectoryChain.h"
#include "linux/ditto/Report.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One entry met on a walk. Valid only during the call it is handed to.
struct Entry {
    const char* name;       ///< empty in `enter` and `leave`
    std::string_view path;  ///< for messages: the root's name, then the way below it
    std::size_t belowRoot;  ///< where in `path` the way below the root begins
    std::uint64_t pathHash; ///< stands for the path; the same in every walk
    const Status& status;   ///< of the source, read just before
    int source;             ///< holds the entry; in `enter` and `leave` the directory itself
    int destination;        ///< the same on the other side; -1 on a walk of the source alone
};

/// What is done on a walk. Each call may throw FileError or Difference: it is reported, and the
/// walk goes on; a directory whose `prepare` has thrown is left out with all that is in it.
class TreeVisitor {
public:
    TreeVisitor() = default;
    TreeVisitor(const TreeVisitor&) = delete;
    TreeVisitor& operator=(const TreeVisitor&) = delete;
    virtual ~TreeVisitor() = default;

    /// Anything that is no directory.
    virtual void file(const Entry& entry) = 0;
    /// A directory other than the root, before it is opened at the destination.
    virtual void prepare(const Entry& /*entry*/) {}
    /// A directory that is open on both sides; `names` are its entries in the source.
    virtual void enter(const Entry& entry, const std::vector<std::string>& names) = 0;
    /// The directory after all its entries.
    virtual void leave(const Entry& /*entry*/) {}
};

/// Walks the tree of the source, and the same directories of the destination beside it, without
/// recursion and with a bounded number of open files, however deep the tree is.
///
/// Refuses to enter anything on another file system or with something mounted on it.
class TreeWalk {
public:
    static constexpr int none = -1;

    /// `rootName` stands for the root in messages. `destination` is a directory or `none`. Both
    /// directories are borrowed. Throws FileError.
    TreeWalk(int source, int destination, std::string rootName, Report& report);

    /// May be called once. Throws CopyEnded.
    void run(TreeVisitor& visitor);

private:
    struct Level {
        Status status;
        std::vector<std::string> names;
        std::size_t next = 0;
        std::size_t pathLength = 0; ///< of the directory's own path
        std::uint64_t pathHash = 0;
    };

    template <typename Action> bool attempt(Action action);
    void step(const std::string& name);
    void enterDirectory(const char* name, std::uint64_t pathHash);
    void openLevel(std::uint64_t pathHash);
    void leaveDirectory();
    void ascend();
    int destinationFd() const noexcept { return destination_ ? destination_->fd() : none; }
    Entry entry(const char* name, std::uint64_t pathHash, const Status& status) const;
    void refuseOtherFileSystem(const Status& status) const;

    DirectoryChain source_;
    std::optional<DirectoryChain> destination_;
    dev_t device_;
    std::string path_;
    std::size_t belowRoot_;
    Report& report_;
    TreeVisitor* visitor_ = nullptr;
    std::vector<Level> levels_;
};
