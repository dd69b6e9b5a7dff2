#include "linux/ditto/FolderCopy.h"

#include "linux/ditto/DirectoryListing.h"
#include "linux/ditto/TreeComparer.h"
#include "linux/ditto/TreeCopier.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <set>

// The copy is made in three walks over the source:
//
//   1. TreeCopier creates everything and records what each entry of the source looked like.
//      Then the destination is synced.
//   2. TreeComparer reads the copy back from the file system and compares it with the source.
//   3. checkSource looks once more whether each entry of the source is as it was recorded.
//
// An entry that looks the same in 1 and 3, its time of change included, did not change between, so
// the comparison in 2 was with what was copied, and the copy is good up to the moment of 3.

namespace {

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string lastComponent(const std::string& path) {
    return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

FileDescriptor openPlace(const std::string& path) {
    FileDescriptor place(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!place.open()) fail(Side::destination, "the folder above cannot be opened");
    return place;
}

/// True when the directory `fd` is `ancestor` or lies anywhere below it.
bool isWithin(Side side, int fd, const Status& ancestor) {
    FileDescriptor opened;
    for (Status at = statusAt(side, fd, "");;) {
        if (at.sameEntry(ancestor)) return true;
        opened = FileDescriptor(openat(fd, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!opened.open()) fail(side, "the folder above cannot be opened");
        fd = opened.get();
        const Status above = statusAt(side, fd, "");
        if (above.sameEntry(at)) return false;
        at = above;
    }
}

constexpr const char* destinationInside = "the destination lies inside the folder to be copied";

/// Opens the destination, which is created when it does not exist. Nothing is written when one
/// folder lies inside the other.
FileDescriptor openDestination(int source, const std::string& path) {
    const Status original = statusAt(Side::source, source, "");
    const FileDescriptor place = openPlace(parentOf(path));
    const std::string name = lastComponent(path);
    struct stat found {};
    if (fstatat(place.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        if (isWithin(Side::destination, place.get(), original)) throw Difference(destinationInside);
        if (mkdirat(place.get(), name.c_str(), 0700) != 0) {
            fail(Side::destination, "cannot be created");
        }
        return openToRead(Side::destination, place.get(), name.c_str(), O_DIRECTORY);
    }
    FileDescriptor folder = openToRead(Side::destination, place.get(), name.c_str(), O_DIRECTORY);
    if (isWithin(Side::destination, folder.get(), original)) throw Difference(destinationInside);
    if (isWithin(Side::source, source, statusAt(Side::destination, folder.get(), ""))) {
        throw Difference("the folder to be copied lies inside the destination");
    }
    return folder;
}

/// Makes the destination's root as a new directory would be: private, and without access control
/// lists, which entries would inherit.
void clearMetadata(int destination) {
    const Node root(Side::destination, destination);
    removeAttributes(root);
    root.setMode(0700);
}

/// Returns when everything written to the file system of `destination` is on the disk.
void syncAll(int destination) {
    if (syncfs(destination) != 0) fail(Side::destination, "cannot be written to the disk");
    // EINVAL: the file system has no need to sync directories.
    if (fsync(destination) != 0 && errno != EINVAL) {
        fail(Side::destination, "cannot be written to the disk");
    }
}

/// The kernel passes syncfs() to no file system in user space, but fsync() it does.
bool isInUserSpace(int fd) {
    struct statfs found {};
    if (fstatfs(fd, &found) != 0) fail(Side::destination, "cannot be examined");
    return found.f_type == FUSE_SUPER_MAGIC;
}

class Copy {
public:
    Copy(int source, int destination, std::string name, Report& report)
        : source_(source), destination_(destination), name_(std::move(name)), report_(report) {}

    void run() {
        const auto names = listDirectory(Side::destination, destination_);
        clearMetadata(destination_);
        TreeCopier copier(destination_, record_, ownership_, report_);
        TreeWalk(source_, destination_, name_, report_).run(copier);
        if (report_.problems() != 0) return;
        syncAll(destination_);
        record_.finish();
        compare({names.begin(), names.end()});
        if (report_.problems() == 0) checkSource(source_, name_, record_, report_);
    }

private:
    void compare(std::set<std::string> namesBefore) {
        TreeComparer comparer(
            {record_, ownership_, std::move(namesBefore), isInUserSpace(destination_)}, report_);
        TreeWalk(source_, destination_, name_, report_).run(comparer);
        comparer.finish();
        if (comparer.wroteCopy()) syncAll(destination_);
    }

    int source_;
    int destination_;
    std::string name_;
    Report& report_;
    SourceRecord record_;
    Ownership ownership_;
};

} // namespace

bool copyFolder(const std::string& source, const std::string& destination, Report& report) {
    const std::string from = withoutTrailingSlashes(source);
    const std::string to = withoutTrailingSlashes(destination);
    const std::string* at = &from; // what a failure outside of the walks is about
    try {
        const FileDescriptor original =
            openToRead(Side::source, AT_FDCWD, from.c_str(), O_DIRECTORY);
        at = &to;
        const FileDescriptor copy = openDestination(original.get(), to);
        Copy(original.get(), copy.get(), lastComponent(from), report).run();
    } catch (const FileError& error) {
        report.problem(*at, error.what());
    } catch (const Difference& difference) {
        report.problem(*at, difference.what());
    } catch (const CopyEnded&) {
        // The cause has been reported.
    }
    return report.problems() == 0;
}
