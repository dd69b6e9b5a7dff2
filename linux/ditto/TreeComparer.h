#pragma once

#include "linux/ditto/Attributes.h"
#include "linux/ditto/HardLinks.h"
#include "linux/ditto/Ownership.h"
#include "linux/ditto/SourceRecord.h"
#include "linux/ditto/TreeWalk.h"

#include <atomic>
#include <set>
#include <string>

/// Reads the copy back and compares it with the source, entry by entry: listings both ways, types,
/// links, owners, permissions, times of modification, attributes, link targets, and contents byte
/// by byte. Also looks whether the source still is what was recorded when it was copied.
///
/// The copy must have been synced: its pages are dropped from memory before they are read, so that
/// what is compared comes from the file system. Times of last access are not compared; anybody's
/// reading may have changed them.
class TreeComparer : public TreeVisitor {
public:
    struct Expectations {
        const SourceRecord& record;
        const Ownership& ownership;
        std::set<std::string> namesBefore; ///< in the destination's root, not of this copy
        bool syncEach = false; ///< the file system cannot be synced as a whole, only file by file
    };

    TreeComparer(Expectations expectations, Report& report);

    void file(const Entry& entry) override;
    void prepare(const Entry& entry) override;
    void enter(const Entry& entry, const std::vector<std::string>& names) override;
    /// To be called after the walk.
    void finish();

    /// True when metadata of the copy had to be put back after reading: another sync is due.
    bool wroteCopy() const noexcept { return wroteCopy_; }

private:
    void compare(const Entry& entry);
    void compareRegular(const Entry& entry, const Status& copy);
    void compareNamed(const Entry& entry, const Status& copy);
    void compareStatus(const Status& original, const Status& copy) const;
    void reportExtras(const Entry& entry, std::vector<std::string> names);
    void syncIfNeeded(int fd) const;

    Expectations expected_;
    Report& report_;
    LinkChecker links_;
    std::atomic<bool> wroteCopy_ = false;
};
