// A fuzz target: an ext4 volume that may be anything is opened as `hdiutil attach` does, walked
// through as far as a bound reaches, changed, and closed. It must end in errors or in a volume that
// works, and leave the process whole.

#include "SparseInput.h"
#include "VolumeChecksums.h"
#include "linux/hdiutil/Ext4Volume.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr std::size_t mostEntries = 300;
constexpr std::size_t mostDirectories = 30;

class MemoryDisk : public BlockDevice {
public:
    explicit MemoryDisk(std::vector<std::byte> content) : content_(std::move(content)) {}
    std::uint64_t blockCount() const noexcept override { return content_.size() / blockSize; }
    std::uint64_t freeBlocks() override { return blockCount(); }
    void read(std::uint64_t first, std::span<std::byte> into) override {
        std::memcpy(into.data(), place(first, into.size()), into.size());
    }
    void write(std::uint64_t first, std::span<const std::byte> from) override {
        std::memcpy(place(first, from.size()), from.data(), from.size());
    }
    void reserve(std::uint64_t, std::uint64_t) override {}
    void sync() override {}

private:
    std::byte* place(std::uint64_t first, std::size_t size) {
        if (first > blockCount() || size / blockSize > blockCount() - first)
            throw std::system_error(EIO, std::generic_category());
        return content_.data() + first * blockSize;
    }
    std::vector<std::byte> content_;
};

/// An operation of the volume may fail, as long as it says so in the way that it promises.
template <typename Work> void attempt(Ext4Volume& volume, Work work) {
    try {
        work();
    } catch (const std::system_error& error) {
        volume.noteFailure(error.code().value());
    }
}

class Walk {
public:
    explicit Walk(Ext4Volume& volume) : volume_(volume) {}

    void run() {
        directories_.push_back(Ext4Volume::root);
        for (std::size_t i = 0; i < directories_.size() && i < mostDirectories; ++i)
            attempt(volume_, [&] { list(directories_[i]); });
        attempt(volume_, [&] { volume_.name(); });
        volume_.statistics();
    }

    const std::vector<std::pair<ext2_ino_t, std::string>>& entries() const { return entries_; }

private:
    void list(ext2_ino_t directory) {
        std::vector<std::string> names;
        volume_.readDirectory(directory, 0, [&](const Directory::Entry& entry) {
            names.emplace_back(entry.name);
            return names.size() + entries_.size() < mostEntries;
        });
        for (const std::string& name : names) {
            entries_.emplace_back(directory, name);
            attempt(volume_, [&] { look(directory, name); });
        }
    }

    void look(ext2_ino_t directory, const std::string& name) {
        const auto found = volume_.lookup(directory, name);
        if (!found) return;
        const auto inode = static_cast<ext2_ino_t>(found->st_ino);
        if (S_ISDIR(found->st_mode) && name != "." && name != "..") directories_.push_back(inode);
        attempt(volume_, [&] { lookAtAttributes(inode); });
        attempt(volume_, [&] { volume_.readLink(inode); });
        std::vector<std::byte> some(20'000);
        for (const std::uint64_t at :
             {std::uint64_t{0}, static_cast<std::uint64_t>(found->st_size) - 5000})
            attempt(volume_, [&] { volume_.read(inode, at, some); });
        for (const int whence : {SEEK_DATA, SEEK_HOLE})
            attempt(volume_, [&] { volume_.seek(inode, 0, whence); });
        volume_.forget(inode, 1);
    }

    void lookAtAttributes(ext2_ino_t inode) {
        const std::string names = volume_.attributeNames(inode, true);
        for (std::size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1)
            attempt(volume_, [&] { volume_.attribute(inode, names.c_str() + at); });
    }

    Ext4Volume& volume_;
    std::vector<ext2_ino_t> directories_;
    std::vector<std::pair<ext2_ino_t, std::string>> entries_;
};

/// Changes of all kinds on what the walk has found.
class Changes {
public:
    Changes(Ext4Volume& volume, std::vector<std::pair<ext2_ino_t, std::string>> entries)
        : volume_(volume), entries_(std::move(entries)) {}

    void run() {
        makeNew();
        std::size_t number = 0;
        for (const auto& entry : entries_) {
            if (entry.second == "." || entry.second == "..") continue;
            attempt(volume_, [&] { changeOne(entry.first, entry.second, number); });
            ++number;
        }
        attempt(volume_, [&] { volume_.sync(); });
        attempt(volume_, [&] { volume_.unlink(Ext4Volume::root, "new"); });
    }

private:
    void makeNew() {
        static const Caller me{1000, 1000, 022};
        const std::vector<std::byte> content(30'000, std::byte{7});
        attempt(volume_, [&] {
            const auto made = volume_.create(Ext4Volume::root, "new", {S_IFREG | 0644, 0, {}}, me);
            const auto inode = static_cast<ext2_ino_t>(made.st_ino);
            volume_.write(inode, 0, content);
            volume_.write(inode, 500'000, content);
            volume_.setAttribute(inode, "user.test", std::span(content).first(300), 0);
            volume_.forget(inode, 1);
        });
        attempt(volume_, [&] {
            volume_.create(Ext4Volume::root, "made", {S_IFDIR | 0755, 0, {}}, me);
        });
        attempt(volume_, [&] {
            volume_.create(Ext4Volume::root, "link", {S_IFLNK | 0777, 0, std::string(100, 'x')},
                           me);
        });
    }

    void changeOne(ext2_ino_t directory, const std::string& name, std::size_t number) {
        const auto found = volume_.lookup(directory, name);
        if (!found) return;
        const auto inode = static_cast<ext2_ino_t>(found->st_ino);
        const std::vector<std::byte> content(9'000, std::byte{9});
        attempt(volume_, [&] { volume_.write(inode, number * 3000, content); });
        attempt(volume_, [&] {
            volume_.setAttribute(inode, "user.more", std::span(content).first(number * 40 % 4000),
                                 0);
        });
        attempt(volume_, [&] { volume_.allocate(inode, 0, 20'000, 50'000); });
        attempt(volume_, [&] {
            Ext4Volume::Changes changes;
            changes.size = number % 2 == 0 ? 1000 : 100'000;
            changes.mode = S_IFREG | 0600;
            volume_.setAttributes(inode, changes);
        });
        attempt(volume_, [&] { remove(directory, name, number); });
        volume_.forget(inode, 1);
    }

    void remove(ext2_ino_t directory, const std::string& name, std::size_t number) {
        switch (number % 4) {
        case 0:
            return volume_.unlink(directory, name);
        case 1:
            return volume_.removeDirectory(directory, name);
        case 2:
            return volume_.rename(directory, name, Ext4Volume::root, "new", 0);
        default:
            volume_.link(static_cast<ext2_ino_t>(volume_.lookup(directory, name)->st_ino),
                         directory, name + "2");
        }
    }

    Ext4Volume& volume_;
    std::vector<std::pair<ext2_ino_t, std::string>> entries_;
};

void use(BlockDevice& disk, bool readOnly) {
    const auto volume = Ext4Volume::open(disk, readOnly);
    Walk walk(*volume);
    walk.run();
    if (!readOnly) Changes(*volume, walk.entries()).run();
    attempt(*volume, [&] { volume->close(); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    set_com_err_hook([](const char*, long, const char*, va_list) {}); // nobody reads that
    SparseInput input = SparseInput::decode({data, size});
    if ((input.flags & SparseInput::fixChecksums) != 0) fixVolumeChecksums(input.image);
    MemoryDisk disk(std::move(input.image));
    // A second time, to see that what the changes left behind is bearable, too.
    for (const bool readOnly : {false, true}) {
        try {
            Ext4Volume::needsCheck(disk);
            use(disk, readOnly);
        } catch (const VolumeCorrupt&) {
        } catch (const VolumeNotSupported&) {
        } catch (const std::system_error&) {
            // All of these are answers that a user gets.
        }
    }
    return 0;
}
