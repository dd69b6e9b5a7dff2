#pragma once

#include "FileDescriptor.h"

#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

/// A walk through everything below a directory, to be derived from.
///
/// It follows no symbolic links, enters nothing that is mounted below where it began, and keeps at
/// most three descriptors open however deep the tree is: it goes down by name and up by "..", where
/// it checks that it came back to the directory it had left. Directories that were moved meanwhile
/// end it.
class TreeWalk {
public:
    TreeWalk() = default;
    virtual ~TreeWalk() = default;
    TreeWalk(const TreeWalk&) = delete;
    TreeWalk& operator=(const TreeWalk&) = delete;

protected:
    /// Walks `root`, which is entered and left like the directories below it. To be called once.
    /// Throws `std::filesystem::filesystem_error` when it loses its way, and whatever the functions
    /// below throw.
    void walk(const std::filesystem::path& root) { walk(AT_FDCWD, root.string()); }
    /// The same for a path relative to the open directory `parent`, which is borrowed.
    void walk(int parent, const std::string& root);

    // Names are relative to the open directory `directory`.

    /// An entry that is not a directory.
    virtual void file(int directory, const std::string& name, const struct stat& status) = 0;
    /// Before a directory is opened; here its mode can still be changed. What is opened then is the
    /// directory that `status` is of, or `failed` is called (ESTALE).
    virtual void enter(int, const std::string&, const struct stat&) {}
    /// After all of a directory's entries.
    virtual void leave(int, const std::string&) {}
    /// An entry could not be visited; without a throw the walk goes on without it.
    virtual void failed(const std::string& name, int errorNumber) = 0;

    /// The path of an entry of the current directory, for messages.
    std::filesystem::path pathOf(const std::string& name) const;
    /// Stands for the path of an entry of the current directory below the root; the same in every
    /// walk.
    std::uint64_t pathHash(const std::string& name) const;
    /// How many directories the current one lies below the root; -1 for the root's own calls.
    int depth() const noexcept { return static_cast<int>(levels_.size()) - 1; }

private:
    struct Level {
        std::string name;
        dev_t device;
        ino_t inode;
        std::uint64_t pathHash;
        std::vector<std::string> directoriesLeft;
    };

    int currentDirectory() const noexcept;
    void descend(const std::string& name);
    void visitEntries();
    void ascend();

    int outside_ = AT_FDCWD; ///< what the root's path is relative to
    FileDescriptor current_;
    std::vector<Level> levels_;
};
