#include "linux/ditto/TreeComparer.h"

#include "Quillvane/PrintableText.h"
#include "linux/ditto/DirectoryListing.h"
#include "linux/ditto/FileContents.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace {

Status statusOfCopy(const Entry& entry) {
    try {
        return statusAt(Side::destination, entry.destination, entry.name);
    } catch (const FileError& error) {
        if (error.code().value() == ENOENT) throw Difference("is missing in the copy");
        throw;
    }
}

/// Both lists are in the order of their names.
void compareAttributes(const Node& original, const Node& copy) {
    const Attributes wanted = attributesOf(original);
    const Attributes found = attributesOf(copy);
    const auto [a, b] = std::mismatch(wanted.begin(), wanted.end(), found.begin(), found.end());
    if (a == wanted.end() && b == found.end()) return;
    const bool tooMany = a == wanted.end() || (b != found.end() && b->first < a->first);
    const std::string& name = tooMany ? b->first : a->first;
    throw Difference("attribute " + printable(name) + " differs in the copy");
}

} // namespace

TreeComparer::TreeComparer(Expectations expectations, Report& report)
    : expected_(std::move(expectations)), report_(report) {}

void TreeComparer::prepare(const Entry& entry) {
    if (!statusOfCopy(entry).isDirectory()) throw Difference("is no directory in the copy");
}

void TreeComparer::enter(const Entry& entry, const std::vector<std::string>& names) {
    expected_.record.check(entry);
    syncIfNeeded(entry.destination);
    const Node copy(Side::destination, entry.destination);
    compareStatus(entry.status, copy.status());
    compareAttributes(Node(Side::source, entry.source), copy);
    reportExtras(entry, names);
}

/// Entries that are missing are found one by one; here are those that are too many.
void TreeComparer::reportExtras(const Entry& entry, std::vector<std::string> names) {
    const bool isRoot = entry.path.size() < entry.belowRoot;
    std::sort(names.begin(), names.end());
    for (const std::string& name : listDirectory(Side::destination, entry.destination)) {
        if (std::binary_search(names.begin(), names.end(), name)) continue;
        if (isRoot && expected_.namesBefore.contains(name)) continue;
        report_.problem(std::string(entry.path) + "/" + name, "is in the copy only");
    }
}

void TreeComparer::file(const Entry& entry) {
    expected_.record.check(entry);
    try {
        compare(entry);
    } catch (const Difference&) {
        // The source may have changed since the walk looked at it, and the copy be good.
        const Status now = statusAt(Side::source, entry.source, entry.name);
        expected_.record.check({entry.name, entry.path, entry.belowRoot, entry.pathHash, now,
                                entry.source, entry.destination});
        throw;
    }
}

void TreeComparer::compare(const Entry& entry) {
    if (entry.status.isSocket()) return;
    const Status copy = statusOfCopy(entry);
    compareStatus(entry.status, copy);
    if (links_.check(entry, copy)) return;
    entry.status.isRegular() ? compareRegular(entry, copy) : compareNamed(entry, copy);
}

void TreeComparer::compareRegular(const Entry& entry, const Status& copy) {
    if (entry.status.size != copy.size) throw Difference("size differs in the copy");
    const FileDescriptor source = openToRead(Side::source, entry.source, entry.name, O_NONBLOCK);
    const FileDescriptor written =
        openToRead(Side::destination, entry.destination, entry.name, O_NONBLOCK);
    syncIfNeeded(written.get());
    // Advice only: where pages cannot be dropped, the copy is compared from memory.
    posix_fadvise(written.get(), 0, 0, POSIX_FADV_DONTNEED);
    compareAttributes(Node(Side::source, source.get()), Node(Side::destination, written.get()));
    FileContents::ofThisThread().compare(source.get(), written.get(), entry.status);
}

void TreeComparer::compareNamed(const Entry& entry, const Status& copy) {
    const Node source(Side::source, entry.source, entry.name);
    const Node written(Side::destination, entry.destination, entry.name);
    if (entry.status.node != copy.node) throw Difference("device number differs in the copy");
    compareAttributes(source, written);
    if (!entry.status.isSymbolicLink()) return;
    if (source.linkTarget() != written.linkTarget()) {
        throw Difference("link target differs in the copy");
    }
    // Reading a link changes its time of last access, and nothing can prevent that.
    written.setTimes(copy.accessed, copy.modified);
    wroteCopy_ = true;
}

void TreeComparer::compareStatus(const Status& original, const Status& copy) const {
    if (original.type() != copy.type()) throw Difference("type differs in the copy");
    expected_.ownership.check(original, copy);
    if (!original.isSymbolicLink() &&
        (copy.mode & 07777) != expected_.ownership.permissions(original, copy)) {
        throw Difference("permissions differ in the copy");
    }
    if (!sameTime(original.modified, copy.modified)) {
        throw Difference("time of modification differs in the copy");
    }
}

void TreeComparer::finish() {
    links_.finish(report_);
}

void TreeComparer::syncIfNeeded(int fd) const {
    if (expected_.syncEach && fsync(fd) != 0) fail(Side::destination, "cannot be written");
}
