#pragma once

#include "linux/hdiutil/Ext4Volume.h"

#include "RecordingDisk.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

/// Random operations on a volume, and what has to be there if the power fails at any moment.
///
/// After a crash everything must be as it was at the last sync; what was changed since then may be
/// as before or after the change. The names must be those of one moment since the last sync: every
/// operation happens wholly or not at all, and in order.
class CrashWorkload {
public:
    using Content = std::vector<std::byte>;
    using Tree = std::map<std::string, Content>; ///< directories have names that end with "/"

    CrashWorkload(RecordingDisk& disk, unsigned seed);
    /// Runs operations. Those that the disk fails may have happened or not: what they have done is
    /// looked up, and `compare` is of no use any more.
    void run(unsigned operations);
    /// Closes the volume.
    void close();

    /// What is wrong with what was found after a crash, after so many events; "" when nothing is.
    std::string compare(const Tree& found, std::size_t events) const;
    const Tree& tree() const noexcept { return tree_; }
    /// All of a volume.
    static Tree treeOf(Ext4Volume& volume);

private:
    struct Change {
        std::size_t event; ///< before it the change had not begun
        std::string name;
        std::optional<Content> after; ///< nothing: gone
        bool anyContent = false;      ///< if it is there
    };
    struct Moment {
        std::size_t event;
        std::set<std::string> names;
    };
    struct Synced {
        std::size_t event; ///< after which it was complete
        Tree tree;
        std::size_t changes; ///< how many there had been before
        std::size_t moments;
    };
    static std::string describe(const std::string& name, const Content& found,
                                const Content* synced, const std::vector<const Change*>& since);
    void operate();
    void create();
    void write();
    void truncate();
    void rename();
    void unlink();
    void makeDirectory();
    void removeDirectory();
    void letGo();
    void reserve();
    void sync();
    void note(const std::string& name, bool anyContent = false);
    void noteContents(const std::string& name);
    void writeAll(ext2_ino_t inode, std::size_t offset, const Content& content);
    std::string pickFile();
    std::string newName();
    ext2_ino_t inodeOf(const std::string& name);
    ext2_ino_t parentOf(const std::string& name);
    static std::string leafOf(const std::string& name);
    Content random(std::size_t size);

    RecordingDisk& disk_;
    const bool grows_;
    std::minstd_rand random_;
    std::unique_ptr<Ext4Volume> volume_;
    Tree tree_;
    std::map<std::string, std::set<std::string>> formerNames_; ///< since the last sync
    std::set<ext2_ino_t> unlinkedOpen_;
    std::vector<Change> changes_;
    std::vector<Moment> moments_;
    std::vector<Synced> synced_;
    std::size_t begun_ = 0; ///< the event with which the running operation begins
};
