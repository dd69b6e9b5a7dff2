#include "linux/ditto/SourceRecord.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

Status someFile() {
    Status status;
    status.inode = 5;
    status.mode = S_IFREG | 0644;
    status.size = 17;
    status.modified = {100, 1};
    status.changed = {100, 2};
    return status;
}

Entry entryOf(std::uint64_t pathHash, const Status& status) {
    return {"a", "Docs/a", 5, pathHash, status, -1, -1};
}

std::string complaint(const SourceRecord& record, std::uint64_t pathHash, const Status& status) {
    try {
        record.check(entryOf(pathHash, status));
    } catch (const Difference& difference) {
        return difference.what();
    }
    return "";
}

} // namespace

TEST(SourceRecord, KnowsWhatItHasSeen) {
    SourceRecord record;
    for (std::uint64_t hash = 1; hash <= 9; ++hash) record.add(hash * 7919 % 10, someFile());
    record.finish();
    EXPECT_EQ(record.size(), 9U);
    for (std::uint64_t hash = 1; hash <= 9; ++hash)
        EXPECT_EQ(complaint(record, hash, someFile()), "");
    EXPECT_EQ(complaint(record, 0, someFile()), "appeared while the folder was being copied");
    EXPECT_EQ(complaint(record, 10, someFile()), "appeared while the folder was being copied");
}

TEST(SourceRecord, NoticesEveryChange) {
    const std::vector<std::function<void(Status&)>> changes{
        [](Status& s) { s.mode = S_IFREG | 0600; },
        [](Status& s) { s.mode = S_IFIFO | 0644; },
        [](Status& s) { s.size = 18; },
        [](Status& s) { s.owner = 1; },
        [](Status& s) { s.group = 1; },
        [](Status& s) { s.node = 1; },
        [](Status& s) { s.modified.tv_sec = 101; },
        [](Status& s) { s.modified.tv_nsec = 2; },
        [](Status& s) { s.changed.tv_sec = 101; },
        [](Status& s) { s.changed.tv_nsec = 3; },
    };
    SourceRecord record;
    for (const std::uint64_t hash : {6, 7, 8}) record.add(hash, someFile());
    record.finish();
    for (const auto& change : changes) {
        Status changed = someFile();
        change(changed);
        for (const std::uint64_t hash : {6, 7, 8}) {
            EXPECT_EQ(complaint(record, hash, changed), "changed while it was being copied");
        }
    }
}

TEST(SourceRecord, ForgivesWhatReadingAndLookingUpChange) {
    SourceRecord record;
    record.add(7, someFile());
    record.finish();
    Status read = someFile();
    read.accessed = {999, 0};
    read.inode = 6;
    EXPECT_EQ(complaint(record, 7, read), "");
}
