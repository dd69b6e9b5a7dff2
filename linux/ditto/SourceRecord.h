#pragma once

#include "linux/ditto/TreeWalk.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// What every entry of the source looked like when it was copied: 16 bytes an entry.
///
/// An entry's type, permissions, owner, size, and times of modification and change are kept as a
/// 64-bit digest. Its inode number is not among them: file systems in user space may give a file
/// another one each time it is looked up, and a file put in another's place has its own time of
/// change. The time of last access changes by reading.
class SourceRecord {
public:
    /// May be called by several threads.
    void add(std::uint64_t pathHash, const Status& status);
    /// To be called once, after the last `add` and before the first `check`.
    void finish();
    /// Throws Difference unless the entry is as it was when it was added.
    void check(const Entry& entry) const;
    std::size_t size() const noexcept { return entries_.size(); }

private:
    using Kept = std::pair<std::uint64_t, std::uint64_t>; ///< path hash and digest
    std::mutex adding_;
    std::vector<Kept> entries_;
};

/// A last look at the source after the comparison, however long that took: throws CopyEnded or
/// reports a problem unless each entry is still there and as it was recorded.
void checkSource(int source, const std::string& rootName, const SourceRecord& record,
                 Report& report);
