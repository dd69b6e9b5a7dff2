#include "InodeReferences.h"

#include <algorithm>

void InodeReferences::add(ext2_ino_t inode) {
    std::unique_ptr<Page>& page = pages_[inode / perPage];
    if (!page) page = std::make_unique<Page>();
    if (page->counts[inode % perPage]++ == 0) page->used++;
}

void InodeReferences::remove(ext2_ino_t inode, std::uint64_t count) {
    const auto found = pages_.find(inode / perPage);
    if (found == pages_.end() || !found->second) return;
    Page& page = *found->second;
    std::uint64_t& references = page.counts[inode % perPage];
    if (references == 0 || count == 0) return;
    references -= std::min(references, count);
    if (references == 0 && --page.used == 0) pages_.erase(found);
}

bool InodeReferences::has(ext2_ino_t inode) const noexcept {
    const auto found = pages_.find(inode / perPage);
    return found != pages_.end() && found->second && found->second->counts[inode % perPage] > 0;
}
