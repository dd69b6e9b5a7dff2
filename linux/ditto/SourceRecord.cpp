#include "linux/ditto/SourceRecord.h"

#include <algorithm>
#include <array>

namespace {

std::uint64_t digestOf(const Status& status) {
    // A directory's size says nothing that its times do not, and some file systems compute it.
    const std::uint64_t size = status.isDirectory() ? 0 : status.size;
    const std::array<std::uint64_t, 9> parts{
        status.mode,
        status.owner,
        status.group,
        status.node,
        size,
        static_cast<std::uint64_t>(status.modified.tv_sec),
        static_cast<std::uint64_t>(status.modified.tv_nsec),
        static_cast<std::uint64_t>(status.changed.tv_sec),
        static_cast<std::uint64_t>(status.changed.tv_nsec),
    };
    std::uint64_t digest = 0;
    for (const std::uint64_t part : parts) {
        // The finalizer of SplitMix64: every bit of the input reaches every bit of the result.
        digest += part + 0x9e3779b97f4a7c15;
        digest = (digest ^ (digest >> 30)) * 0xbf58476d1ce4e5b9;
        digest = (digest ^ (digest >> 27)) * 0x94d049bb133111eb;
        digest ^= digest >> 31;
    }
    return digest;
}

class SourceVisitor : public TreeVisitor {
public:
    explicit SourceVisitor(const SourceRecord& record) : record_(record) {}
    void file(const Entry& entry) override {
        ++seen_;
        record_.check(entry);
    }
    void enter(const Entry& entry, const std::vector<std::string>& /*names*/) override {
        ++seen_;
        record_.check(entry);
    }
    std::size_t seen() const noexcept { return seen_; }

private:
    const SourceRecord& record_;
    std::size_t seen_ = 0;
};

} // namespace

void SourceRecord::add(std::uint64_t pathHash, const Status& status) {
    const std::uint64_t digest = digestOf(status);
    const std::lock_guard lock(adding_);
    entries_.emplace_back(pathHash, digest);
}

void SourceRecord::finish() {
    std::sort(entries_.begin(), entries_.end());
}

void SourceRecord::check(const Entry& entry) const {
    const Kept wanted{entry.pathHash, digestOf(entry.status)};
    const auto found = std::lower_bound(entries_.begin(), entries_.end(), wanted);
    if (found != entries_.end() && *found == wanted) return;
    const auto same = [&](const auto at) {
        return at != entries_.end() && at->first == entry.pathHash;
    };
    // The digest may be smaller or larger than the recorded one.
    if (same(found) || (found != entries_.begin() && same(found - 1))) {
        throw Difference::changed();
    }
    throw Difference("appeared while the folder was being copied");
}

void checkSource(int source, const std::string& rootName, const SourceRecord& record,
                 Report& report) {
    SourceVisitor visitor(record);
    TreeWalk(source, TreeWalk::none, rootName, report).run(visitor);
    if (report.problems() == 0 && visitor.seen() != record.size()) {
        report.problem(rootName, "an entry vanished while the folder was being copied");
    }
}
