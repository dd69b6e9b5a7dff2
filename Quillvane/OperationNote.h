#pragma once

#include "FileDescriptor.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// An operation could not be noted, or another program is at work on the same thing.
class OperationNoteError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What is remembered of an operation that moves the user's only copy, from before its first change
/// to after its last: a file in the user's state directory that names the folder, the item and the
/// steps reached, and holds no secret.
///
/// It is locked as long as the object lives, however the program ends, so a note whose lock can be
/// had is that of an operation that was interrupted. It is only ever added to, a line at a time,
/// and each is on the disk when the call returns; a last line that was cut short does not count.
class OperationNote {
public:
    using Path = std::filesystem::path;
    enum class Operation { protect, remove };
    enum class Step {
        deleting, ///< the original begins to be deleted; with the image's inode
        done,     ///< the item is whole, but its recovery key may not have been shown
        made,     ///< the folder was made; with its inode
        copied,   ///< the folder is whole and on the disk; the item begins to be deleted
        undoing,  ///< the folder is whole no longer: it begins to be deleted again
        dropping, ///< the image is not needed: it begins to be deleted, with its key file
        shown     ///< the recovery key was shown; what else was left is not the user's concern
    };

    struct Contents {
        Operation operation = Operation::protect;
        /// Without links, and its inode: another directory by that name is another place.
        Path directory;
        std::uint64_t directoryInode = 0;
        /// As `Platform::birthTime` has it: the roots of two disks may have the same inode.
        std::int64_t directoryBirth = 0;
        /// File names in the directory; `image`, the working image, is that of a protection alone.
        std::string folder;
        std::string item;
        std::string image;
        /// Of what is there at the beginning: the folder, or the item whose protection goes.
        std::uint64_t originalInode = 0;
        std::int64_t originalBirth = 0;
        /// The steps reached, each with its number, or 0.
        std::map<Step, std::uint64_t> steps;

        std::optional<std::uint64_t> step(Step which) const;
    };

    /// A note as it is found on the disk.
    struct Entry {
        std::string id;
        bool interrupted; ///< its operation has ended without an end
        Contents contents;
    };
    /// All notes of this user. Empty when they cannot be read.
    static std::vector<Entry> all();

    /// Notes an operation; `directory`, its birth and the inodes are filled in. Throws
    /// `OperationNoteError`, with nothing changed but that directories may have been made.
    static OperationNote begin(Contents contents);
    /// Takes an interrupted operation's note over; nothing when it is gone or somebody else's.
    /// `directory` is where the noted one is now, if not where it was.
    static std::optional<OperationNote> take(const std::string& id, Path directory = {});

    const Contents& contents() const noexcept { return contents_; }
    /// Throws `std::filesystem::filesystem_error`; the step may count all the same.
    void reach(Step step, std::uint64_t number = 0);
    /// The end of the operation: removes the note once what was done in the directory is on the
    /// disk. Returns false when that cannot be made sure: the note then stays, and is found again.
    bool remove() noexcept;

private:
    OperationNote(Path file, FileDescriptor fd, Contents contents);

    Path file_;
    FileDescriptor fd_;
    Contents contents_;
};
