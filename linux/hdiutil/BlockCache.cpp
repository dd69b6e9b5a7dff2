#include "BlockCache.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <system_error>
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

/// Null when the block cannot be read: whoever writes it whole needs not know what was there.
BlockCache::Entry* BlockCache::fetch(std::uint64_t block) {
    std::array<std::byte, blockSize> data;
    try {
        device_.read(block, data);
    } catch (const std::system_error&) {
        return nullptr;
    }
    Entry& entry = insert(block);
    entry.data = data;
    return &entry;
}

BlockCache::Entry& BlockCache::insert(std::uint64_t block) {
    evict();
    Entry& entry = entries_.emplace_front();
    entry.block = block;
    index_.emplace(block, entries_.begin());
    return entry;
}

void BlockCache::evict() {
    // A block at the end of the row that is not written yet is moved to its front: a good part of
    // the blocks is clean, so the next one to go is found soon.
    for (std::size_t tries = entries_.size(); entries_.size() >= capacity && tries > 0; --tries) {
        if (entries_.back().state != State::clean) {
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
        device_.read(block, into.first(blockSize));
        std::memcpy(insert(block).data.data(), into.data(), blockSize);
    }
}

void BlockCache::write(std::uint64_t block, std::span<const std::byte> from) {
    for (; !from.empty(); ++block, from = from.subspan(blockSize)) {
        Entry* entry = find(block);
        if (entry == nullptr) entry = fetch(block);
        if (entry != nullptr && std::memcmp(entry->data.data(), from.data(), blockSize) == 0)
            continue;
        if (entry == nullptr || entry->state == State::clean) device_.reserve(block, 1);
        if (entry == nullptr) entry = &insert(block);
        std::memcpy(entry->data.data(), from.data(), blockSize);
        setState(*entry, State::changed);
    }
}

void BlockCache::forget(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t block = first; block < first + count; ++block) {
        const auto found = index_.find(block);
        if (found == index_.end()) continue;
        setState(*found->second, State::clean);
        entries_.erase(found->second);
        index_.erase(found);
    }
}

void BlockCache::setState(Entry& entry, State state) noexcept {
    if (entry.state == State::changed) --changed_;
    if (entry.state == State::owed) --owed_;
    entry.state = state;
    if (state == State::changed) ++changed_;
    if (state == State::owed) ++owed_;
}

/// In order of their place.
std::vector<BlockCache::Entry*> BlockCache::unwritten() {
    std::vector<Entry*> found;
    found.reserve(changed_ + owed_);
    for (Entry& entry : entries_)
        if (entry.state != State::clean) found.push_back(&entry);
    std::sort(found.begin(), found.end(),
              [](const Entry* a, const Entry* b) { return a->block < b->block; });
    return found;
}

std::vector<BlockCache::Change> BlockCache::changes() {
    std::vector<Change> result;
    result.reserve(changed_);
    for (const Entry* entry : unwritten())
        if (entry->state == State::changed) result.push_back({entry->block, entry->data.data()});
    return result;
}

void BlockCache::committed() noexcept {
    for (Entry& entry : entries_)
        if (entry.state == State::changed) setState(entry, State::owed);
}

void BlockCache::flush(bool sync) {
    const std::vector<Entry*> all = unwritten();
    for (std::size_t first = 0; first < all.size();) {
        std::size_t last = first + 1;
        while (last < all.size() && last - first < longestRun &&
               all[last]->block == all[last - 1]->block + 1)
            ++last;
        writeRun(std::span(all).subspan(first, last - first));
        first = last;
    }
    if (sync) device_.sync();
    for (Entry* entry : all) setState(*entry, State::clean);
}

void BlockCache::writeRun(std::span<Entry* const> run) {
    std::vector<std::byte> together(run.size() * blockSize);
    for (std::size_t i = 0; i < run.size(); ++i)
        std::memcpy(together.data() + i * blockSize, run[i]->data.data(), blockSize);
    device_.write(run.front()->block, together);
}
