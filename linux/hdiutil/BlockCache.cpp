#include "BlockCache.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

namespace {
constexpr std::size_t longestRun = 256; // blocks written by one call, 1 MiB
}

BlockCache::Entry* BlockCache::find(std::uint64_t block) {
    const auto found = index_.find(block);
    if (found == index_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, found->second);
    return &*found->second;
}

BlockCache::Entry& BlockCache::insert(std::uint64_t block) {
    evict();
    Entry& entry = entries_.emplace_front();
    entry.block = block;
    index_.emplace(block, entries_.begin());
    return entry;
}

void BlockCache::evict() {
    // A changed block at the end of the row is moved to its front: no more than half of the blocks
    // are changed, so the next one to go is found soon.
    for (std::size_t tries = entries_.size(); entries_.size() >= capacity && tries > 0; --tries) {
        if (entries_.back().dirty) {
            entries_.splice(entries_.begin(), entries_, std::prev(entries_.end()));
            continue;
        }
        index_.erase(entries_.back().block);
        entries_.pop_back();
    }
}

void BlockCache::read(std::uint64_t block, std::span<std::byte> into) {
    for (; !into.empty(); ++block, into = into.subspan(blockSize)) {
        if (const Entry* entry = find(block)) {
            std::memcpy(into.data(), entry->data.data(), blockSize);
            continue;
        }
        image_.read(block, into.first(blockSize));
        std::memcpy(insert(block).data.data(), into.data(), blockSize);
    }
}

void BlockCache::write(std::uint64_t block, std::span<const std::byte> from) {
    for (; !from.empty(); ++block, from = from.subspan(blockSize)) {
        Entry* entry = find(block);
        if (entry != nullptr && std::memcmp(entry->data.data(), from.data(), blockSize) == 0)
            continue;
        if (entry == nullptr || !entry->dirty) image_.reserve(block, 1);
        if (entry == nullptr) entry = &insert(block);
        std::memcpy(entry->data.data(), from.data(), blockSize);
        if (!entry->dirty) ++dirtyCount_;
        entry->dirty = true;
    }
}

void BlockCache::forget(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t block = first; block < first + count; ++block) {
        const auto found = index_.find(block);
        if (found == index_.end()) continue;
        if (found->second->dirty) --dirtyCount_;
        entries_.erase(found->second);
        index_.erase(found);
    }
}

void BlockCache::flush() {
    if (dirtyCount_ == 0) return;
    std::vector<Entry*> changed;
    changed.reserve(dirtyCount_);
    for (Entry& entry : entries_)
        if (entry.dirty) changed.push_back(&entry);
    std::sort(changed.begin(), changed.end(),
              [](const Entry* a, const Entry* b) { return a->block < b->block; });
    for (std::size_t first = 0; first < changed.size();) {
        std::size_t last = first + 1;
        while (last < changed.size() && last - first < longestRun &&
               changed[last]->block == changed[last - 1]->block + 1)
            ++last;
        writeRun(std::span(changed).subspan(first, last - first));
        first = last;
    }
}

void BlockCache::writeRun(std::span<Entry* const> run) {
    std::vector<std::byte> together(run.size() * blockSize);
    for (std::size_t i = 0; i < run.size(); ++i)
        std::memcpy(together.data() + i * blockSize, run[i]->data.data(), blockSize);
    image_.write(run.front()->block, together);
    for (Entry* entry : run) entry->dirty = false;
    dirtyCount_ -= run.size();
}
