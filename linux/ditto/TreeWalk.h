#pragma once

#include "linux/ditto/DirectoryChain.h"
#include "linux/ditto/Report.h"
#include "linux/ditto/Workers.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
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
    const Status& status;   ///< of the source, read before
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

    /// Anything that is no directory. On a walk of both sides several threads call it at once, for
    /// files of the same directory or of others, and beside the other calls.
    virtual void file(const Entry& entry) = 0;
    /// A directory other than the root, before it is opened at the destination.
    virtual void prepare(const Entry& /*entry*/) {}
    /// A directory that is open on both sides; `names` are its entries in the source.
    virtual void enter(const Entry& entry, const std::vector<std::string>& names) = 0;
    /// The directory after all its files, and after `enter` of all directories in it.
    virtual void leave(const Entry& /*entry*/) {}
};

/// Walks the tree of the source, and the same directories of the destination beside it, without
/// recursion and with a bounded number of open files, however deep the tree is.
///
/// Refuses to enter anything on another file system or with something mounted on it.
///
/// A walk of both sides has its files worked on by several threads: most of the time that a small
/// file takes is spent waiting for the disk or for a file system in user space.
class TreeWalk {
public:
    static constexpr int none = -1;

    /// `rootName` stands for the root in messages. `destination` is a directory or `none`. Both
    /// directories are borrowed. Throws FileError.
    TreeWalk(int source, int destination, std::string rootName, Report& report);

    /// May be called once. Throws CopyEnded.
    void run(TreeVisitor& visitor);

private:
    /// A directory that is not finished.
    struct Folder {
        Folder(const Status& found, std::uint64_t hash) : status(found), pathHash(hash) {}

        Status status;
        std::uint64_t pathHash;
        std::string path;                       ///< set when the walk leaves the directory
        std::atomic<std::size_t> unfinished{1}; ///< the walk itself and each file worked on
    };
    struct Level {
        std::shared_ptr<Folder> folder;
        std::vector<std::string> names;
        std::size_t next = 0;
        std::size_t pathLength = 0; ///< of the directory's own path
    };
    /// The deepest directory on both sides.
    struct Place {
        DirectoryChain::Handle source;
        DirectoryChain::Handle destination; ///< empty on a walk of the source alone
    };

    void walk();
    template <typename Action> bool attempt(std::string_view path, Action action) noexcept;
    void reportFailure(std::string_view path, const char* text, bool endsCopy);
    void step(const std::string& name);
    void handOver(const std::string& name, std::uint64_t pathHash, const Status& status);
    void enterDirectory(const char* name, std::uint64_t pathHash);
    void openLevel(std::uint64_t pathHash);
    void leaveDirectory();
    void finishOne(Folder& folder, const Place& place) noexcept;
    void ascend();
    Place place() const;
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
    std::mutex failing_;
    std::atomic<bool> ended_ = false; ///< the rest is left out
    std::exception_ptr unexpected_;   ///< what ended it when it is none of the visitor's failures
    std::optional<Workers> workers_;  ///< on a walk of both sides
};
