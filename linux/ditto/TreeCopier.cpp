#include "linux/ditto/TreeCopier.h"

#include "linux/ditto/FileContents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t whileIncomplete = 0700;

/// Opens the original and makes sure that it is what was examined by name before.
FileDescriptor openOriginal(const Entry& entry, Status& status) {
    // Without O_NONBLOCK, a FIFO put in the file's place would block for ever.
    FileDescriptor file = openToRead(Side::source, entry.source, entry.name, O_NONBLOCK);
    status = statusAt(Side::source, file.get(), "");
    if (!status.sameEntry(entry.status) || !status.isRegular()) throw Difference::changed();
    return file;
}

FileDescriptor createCopy(const Entry& entry, mode_t permissions) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor file(openat(entry.destination, entry.name, flags, permissions));
    if (!file.open()) fail(Side::destination, "cannot be created");
    return file;
}

} // namespace

TreeCopier::TreeCopier(int destination, SourceRecord& record, Ownership& ownership, Report& report)
    : destinationRoot_(statusAt(Side::destination, destination, "")), record_(record),
      ownership_(ownership), report_(report), links_(destination) {}

void TreeCopier::prepare(const Entry& entry) {
    // A mount can hide from the check made before that the destination lies inside the source.
    if (entry.status.sameEntry(destinationRoot_)) throw Difference("is the destination itself");
    if (mkdirat(entry.destination, entry.name, whileIncomplete) != 0) {
        fail(Side::destination, "cannot be created");
    }
}

void TreeCopier::enter(const Entry& entry, const std::vector<std::string>& /*names*/) {
    record_.add(entry.pathHash, entry.status);
}

void TreeCopier::leave(const Entry& entry) {
    const Attributes attributes = attributesOf(Node(Side::source, entry.source));
    applyMetadata(Node(Side::destination, entry.destination), attributes, entry.status);
}

void TreeCopier::file(const Entry& entry) {
    std::unique_lock linking(linking_, std::defer_lock);
    if (entry.status.links > 1) linking.lock();
    if (entry.status.isSocket()) {
        // It belongs to a process, not to the user's data: a new one would lead nowhere.
        report_.note(entry.path, "is a socket and was not copied");
        record_.add(entry.pathHash, entry.status);
    } else if (links_.link(entry)) {
        record_.add(entry.pathHash, entry.status);
    } else {
        entry.status.isRegular() ? copyRegular(entry) : copyNamed(entry);
        links_.copied(entry);
    }
}

void TreeCopier::copyRegular(const Entry& entry) {
    Status original;
    const FileDescriptor source = openOriginal(entry, original);
    record_.add(entry.pathHash, original);
    const Attributes attributes = attributesOf(Node(Side::source, source.get()));
    // Created with its final permissions where possible, which saves a call; but attributes can
    // only be set on a file that its owner may write.
    const mode_t needed = attributes.empty() ? 0 : S_IWUSR;
    FileDescriptor copy = createCopy(entry, (original.mode & 0777) | needed);
    FileContents::ofThisThread().copy(source.get(), copy.get(), original);
    applyMetadata(Node(Side::destination, copy.get()), attributes, original);
    if (!copy.close()) fail(Side::destination, "cannot be written");
}

/// Copies what is never opened: symbolic links, FIFOs and device nodes.
void TreeCopier::copyNamed(const Entry& entry) {
    const Node source(Side::source, entry.source, entry.name);
    record_.add(entry.pathHash, entry.status);
    const Attributes attributes = attributesOf(source);
    int result = 0;
    if (entry.status.isSymbolicLink()) {
        result = symlinkat(source.linkTarget().c_str(), entry.destination, entry.name);
    } else {
        const mode_t mode = entry.status.type() | (entry.status.mode & 0777);
        result = mknodat(entry.destination, entry.name, mode, entry.status.node);
    }
    if (result != 0) fail(Side::destination, "cannot be created");
    applyMetadata(Node(Side::destination, entry.destination, entry.name), attributes, entry.status);
}

void TreeCopier::applyMetadata(const Node& copy, const Attributes& attributes,
                               const Status& original) {
    Status now = copy.status();
    const bool otherOwner = now.owner != original.owner || now.group != original.group;
    if (otherOwner) ownership_.apply(copy, original, now);
    setAttributes(copy, attributes);
    // Both of them can change the permissions, so these come after, and the times last.
    if (otherOwner || !attributes.empty()) now = copy.status();
    const mode_t permissions = ownership_.permissions(original, now);
    if (!original.isSymbolicLink() && (now.mode & 07777) != permissions) copy.setMode(permissions);
    copy.setTimes(original.accessed, original.modified);
}
