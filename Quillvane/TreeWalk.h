#pragma once

#include "FileDescriptor.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

/// A walk through everything below a directory, to be derived from.
///
/// It follows no symbolic links, stays on the file system it began on, and keeps at most three
/// descriptors open however deep the tree is: it goes down by name and up by "..", where it checks
/// that it came back to the directory it had left. Directories that were moved meanwhile end it.
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
    void walk(const std::filesystem::path& root);

    // Names are relative to the open directory `directory`.

    /// An entry that is not a directory.
    virtual void file(int directory, const std::string& name, const struct stat& status) = 0;
    /// Before a directory is opened; here its mode can still be changed.
    virtual void enter(int, const std::string&, const struct stat&) {}
    /// After all of a directory's entries.
    virtual void leave(int, const std::string&) {}
    /// An entry could not be visited; without a throw the walk goes on without it.
    virtual void failed(const std::string& name, int errorNumber) = 0;

    /// The path of an entry of the current directory, for messages.
    std::filesystem::path pathOf(const std::string& name) const;

private:
    struct Level {
        std::string name;
        dev_t device;
        ino_t inode;
        std::vector<std::string> directoriesLeft;
    };

    void descend(const std::string& name);
    void visitEntries();
    void ascend();

    FileDescriptor current_;
    std::vector<Level> levels_;
};
