#include "CrashWorkload.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <linux/falloc.h>
#include <system_error>

namespace {

const Caller me{0, 0, 022};

std::set<std::string> namesOf(const CrashWorkload::Tree& tree) {
    std::set<std::string> names;
    for (const auto& [name, _] : tree) names.insert(name);
    return names;
}

void collect(Ext4Volume& volume, ext2_ino_t directory, const std::string& path,
             CrashWorkload::Tree& into) {
    std::vector<std::string> names;
    volume.readDirectory(directory, 0, [&](const Directory::Entry& entry) {
        if (entry.name != "." && entry.name != "..") names.emplace_back(entry.name);
        return true;
    });
    for (const std::string& name : names) {
        const auto found = volume.lookup(directory, name);
        const auto inode = static_cast<ext2_ino_t>(found->st_ino);
        if (S_ISDIR(found->st_mode)) {
            into[path + name + "/"] = {};
            collect(volume, inode, path + name + "/", into);
        } else {
            CrashWorkload::Content content(static_cast<std::size_t>(found->st_size));
            volume.read(inode, 0, content);
            into[path + name] = std::move(content);
        }
        volume.forget(inode, 1);
    }
}

} // namespace

CrashWorkload::CrashWorkload(RecordingDisk& disk, unsigned seed)
    : disk_(disk), grows_(disk.longestCount() > disk.blockCount()), random_(seed),
      volume_(Ext4Volume::open(disk, false)) {
    moments_.push_back({0, {}});
    synced_.push_back({0, {}, 0, 0});
}

void CrashWorkload::run(unsigned operations) {
    for (unsigned i = 0; i < operations; ++i) {
        begun_ = disk_.events();
        try {
            operate();
        } catch (const std::system_error& error) {
            if (error.code().value() != EIO && error.code().value() != ENOSPC) throw;
            tree_ = treeOf(*volume_); // takes no writing
        }
        moments_.push_back({disk_.events(), namesOf(tree_)});
    }
}

CrashWorkload::Tree CrashWorkload::treeOf(Ext4Volume& volume) {
    Tree tree;
    collect(volume, Ext4Volume::root, "", tree);
    return tree;
}

void CrashWorkload::close() {
    for (const ext2_ino_t inode : unlinkedOpen_) {
        try {
            volume_->forget(inode, 1);
        } catch (const std::system_error&) {
            // Closing tries again.
        }
    }
    unlinkedOpen_.clear();
    for (int attempt = 0;; ++attempt) {
        try {
            return volume_->close();
        } catch (const std::system_error&) {
            if (attempt == 20) throw; // no fault lasts that long
        }
    }
}

void CrashWorkload::operate() {
    const unsigned kind = random_() % 100;
    if (kind < 22) return create();
    if (kind < 40) return write();
    if (kind < 47) return truncate();
    if (kind < 58) return rename();
    if (kind < 72) return unlink();
    if (kind < 80) return makeDirectory();
    if (kind < 88) return removeDirectory();
    if (kind < 92) return grows_ && kind != 88 ? reserve() : letGo();
    sync();
}

/// The name is about to be changed, or has been.
void CrashWorkload::note(const std::string& name, bool anyContent) {
    const auto found = tree_.find(name);
    changes_.push_back({begun_, name,
                        found == tree_.end() ? std::nullopt : std::optional(found->second),
                        anyContent});
}

std::string CrashWorkload::pickFile() {
    std::vector<std::string> files;
    for (const auto& [name, _] : tree_)
        if (!name.ends_with('/')) files.push_back(name);
    return files.empty() ? "" : files[random_() % files.size()];
}

std::string CrashWorkload::newName() {
    std::vector<std::string> places{""};
    for (const auto& [name, _] : tree_)
        if (name.ends_with('/')) places.push_back(name);
    // Long names, so that directories grow by blocks and their blocks are used again.
    return places[random_() % places.size()] + std::to_string(random_() % 60) +
           std::string(150, 'n');
}

ext2_ino_t CrashWorkload::inodeOf(const std::string& name) {
    const auto inode =
        static_cast<ext2_ino_t>(volume_->lookup(parentOf(name), leafOf(name))->st_ino);
    volume_->forget(inode, 1);
    return inode;
}

ext2_ino_t CrashWorkload::parentOf(const std::string& name) {
    const auto slash = name.rfind('/', name.size() - 2);
    return slash == std::string::npos ? Ext4Volume::root : inodeOf(name.substr(0, slash + 1));
}

std::string CrashWorkload::leafOf(const std::string& name) {
    const auto slash = name.rfind('/', name.size() - 2);
    std::string leaf = slash == std::string::npos ? name : name.substr(slash + 1);
    if (leaf.ends_with('/')) leaf.pop_back();
    return leaf;
}

CrashWorkload::Content CrashWorkload::random(std::size_t size) {
    Content content(size);
    for (std::byte& byte : content) byte = static_cast<std::byte>(random_());
    return content;
}

/// A write that was cut short is a failure.
void CrashWorkload::writeAll(ext2_ino_t inode, std::size_t offset, const Content& content) {
    if (volume_->write(inode, offset, content) < content.size())
        throw std::system_error(EIO, std::generic_category());
}

/// The file's contents change, and a crash may bring back a name that it had before.
void CrashWorkload::noteContents(const std::string& name) {
    note(name, true);
    for (const std::string& former : formerNames_[name]) note(former, true);
}

void CrashWorkload::create() {
    const std::string name = newName();
    if (tree_.contains(name) || tree_.contains(name + "/")) return;
    const Content content = random(random_() % 40'000);
    const auto inode = static_cast<ext2_ino_t>(
        volume_->create(parentOf(name), leafOf(name), {S_IFREG | 0644, 0, {}}, me).st_ino);
    volume_->forget(inode, 1);
    tree_[name] = {};
    note(name, true);
    if (!content.empty()) writeAll(inode, 0, content);
    tree_[name] = content;
}

void CrashWorkload::write() {
    const std::string name = pickFile();
    if (name.empty()) return;
    Content& content = tree_[name];
    const std::size_t offset = random_() % 60'000;
    const Content piece = random(1 + random_() % 20'000);
    noteContents(name);
    writeAll(inodeOf(name), offset, piece);
    content.resize(std::max(content.size(), offset + piece.size()));
    std::copy(piece.begin(), piece.end(), content.begin() + static_cast<std::ptrdiff_t>(offset));
}

void CrashWorkload::truncate() {
    const std::string name = pickFile();
    if (name.empty()) return;
    Ext4Volume::Changes changes;
    changes.size = random_() % 30'000;
    noteContents(name);
    volume_->setAttributes(inodeOf(name), changes);
    tree_[name].resize(*changes.size);
}

/// Over a new name or an existing file.
void CrashWorkload::rename() {
    const std::string from = pickFile();
    const std::string to = random_() % 3 == 0 ? newName() : pickFile();
    if (from.empty() || from == to || tree_.contains(to + "/")) return;
    volume_->rename(parentOf(from), leafOf(from), parentOf(to), leafOf(to), 0);
    // A file that was written to since the last sync may have any content under its new name, too.
    const std::size_t since = synced_.back().changes;
    const bool anyContent =
        std::any_of(changes_.begin() + static_cast<std::ptrdiff_t>(since), changes_.end(),
                    [&](const Change& change) { return change.name == from && change.anyContent; });
    tree_[to] = std::move(tree_[from]);
    tree_.erase(from);
    auto former = std::move(formerNames_[from]);
    former.insert(from);
    formerNames_.erase(from);
    formerNames_[to] = std::move(former);
    note(to, anyContent);
    note(from);
}

/// Of an open file, sometimes, which is written to afterwards.
void CrashWorkload::unlink() {
    const std::string name = pickFile();
    if (name.empty()) return;
    const bool open = random_() % 3 == 0;
    const auto inode =
        static_cast<ext2_ino_t>(volume_->lookup(parentOf(name), leafOf(name))->st_ino);
    try {
        volume_->unlink(parentOf(name), leafOf(name));
    } catch (...) {
        volume_->forget(inode, 1);
        throw;
    }
    tree_.erase(name);
    if (open)
        noteContents(name);
    else
        note(name);
    formerNames_.erase(name);
    if (!open) return volume_->forget(inode, 1);
    unlinkedOpen_.insert(inode);
    writeAll(inode, random_() % 20'000, random(10'000));
}

void CrashWorkload::makeDirectory() {
    const std::string name = newName();
    // Not too deep, or paths become long.
    if (tree_.contains(name) || tree_.contains(name + "/") || name.size() > 500) return;
    const auto made = volume_->create(parentOf(name), leafOf(name), {S_IFDIR | 0755, 0, {}}, me);
    volume_->forget(static_cast<ext2_ino_t>(made.st_ino), 1);
    tree_[name + "/"] = {};
    note(name + "/");
}

void CrashWorkload::removeDirectory() {
    for (auto place = tree_.begin(); place != tree_.end(); ++place) {
        const std::string name = place->first;
        if (!name.ends_with('/')) continue;
        const auto next = std::next(place);
        if (next != tree_.end() && next->first.starts_with(name)) continue;
        if (random_() % 2 == 0) continue;
        volume_->removeDirectory(parentOf(name), leafOf(name));
        tree_.erase(name);
        note(name);
        return;
    }
}

void CrashWorkload::letGo() {
    if (unlinkedOpen_.empty()) return;
    const ext2_ino_t inode = *unlinkedOpen_.begin();
    unlinkedOpen_.erase(inode);
    volume_->forget(inode, 1);
}

/// Room behind the end of a file, so much that the volume has to grow before long.
void CrashWorkload::reserve() {
    const std::string name = pickFile();
    if (name.empty()) return;
    volume_->allocate(inodeOf(name), FALLOC_FL_KEEP_SIZE, tree_[name].size(),
                      (2 + random_() % 5) << 20);
}

void CrashWorkload::sync() {
    if (random_() % 4 == 0)
        volume_->writeBehind();
    else
        volume_->syncFile(Ext4Volume::root);
    formerNames_.clear();
    synced_.push_back({disk_.events(), tree_, changes_.size(), moments_.size()});
}

/// For a content that a file never had.
std::string CrashWorkload::describe(const std::string& name, const Content& found,
                                    const Content* synced,
                                    const std::vector<const Change*>& since) {
    std::string text = name + " has a content that it never had, of " +
                       std::to_string(found.size()) + " bytes; synced " +
                       (synced == nullptr ? "never" : std::to_string(synced->size()));
    if (synced != nullptr) {
        const auto at = std::mismatch(found.begin(), found.end(), synced->begin(), synced->end());
        text += ", which differs from byte " + std::to_string(at.first - found.begin());
    }
    for (const Change* change : since)
        text += "; changed after event " + std::to_string(change->event) +
                (change->after ? "" : ", to nothing");
    return text;
}

std::string CrashWorkload::compare(const Tree& found, std::size_t events) const {
    const auto after = std::upper_bound(
        synced_.begin(), synced_.end(), events,
        [](std::size_t number, const Synced& synced) { return number < synced.event; });
    const Synced& base = *std::prev(after);
    const std::set<std::string> names = namesOf(found);
    bool ofOneMoment = names == namesOf(base.tree);
    for (std::size_t i = base.moments; i < moments_.size() && !ofOneMoment; ++i) {
        ofOneMoment = moments_[i].names == names;
        if (moments_[i].event > events) break; // the operation that was under way
    }
    if (!ofOneMoment) return "the names are those of no moment";
    std::map<std::string, std::vector<const Change*>> changes;
    for (std::size_t i = base.changes; i < changes_.size() && changes_[i].event <= events; ++i)
        changes[changes_[i].name].push_back(&changes_[i]);
    for (const auto& [name, content] : found) {
        const auto synced = base.tree.find(name);
        if (synced != base.tree.end() && synced->second == content) continue;
        const auto& since = changes[name];
        if (std::none_of(since.begin(), since.end(), [&](const Change* change) {
                return change->anyContent || (change->after && *change->after == content);
            }))
            return describe(name, content, synced == base.tree.end() ? nullptr : &synced->second,
                            since);
    }
    return "";
}
