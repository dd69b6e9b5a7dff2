#pragma once

#include "linux/ditto/Attributes.h"
#include "linux/ditto/HardLinks.h"
#include "linux/ditto/Ownership.h"
#include "linux/ditto/SourceRecord.h"
#include "linux/ditto/TreeWalk.h"

#include <mutex>

/// Makes the copy: every entry of the source is created in the destination, where nothing of that
/// name may exist yet, and gets the original's metadata.
///
/// Until a directory is complete only the user may enter it. Directories get their metadata after
/// their entries, since every new entry changes a directory's times, and since a default access
/// control list would be inherited.
class TreeCopier : public TreeVisitor {
public:
    /// `destination` is the root of the copy, borrowed. The others are filled and must outlive the
    /// copier.
    TreeCopier(int destination, SourceRecord& record, Ownership& ownership, Report& report);

    void file(const Entry& entry) override;
    void prepare(const Entry& entry) override;
    void enter(const Entry& entry, const std::vector<std::string>& names) override;
    void leave(const Entry& entry) override;

private:
    void copyRegular(const Entry& entry);
    void copyNamed(const Entry& entry);
    void applyMetadata(const Node& copy, const Attributes& attributes, const Status& original);

    Status destinationRoot_;
    SourceRecord& record_;
    Ownership& ownership_;
    Report& report_;
    std::mutex linking_; ///< held while a file of several names is copied or linked
    LinkMaker links_;
};
