// Power cuts and broken disks at the points of a random workload. QUILLVANE_CRASH_SEED and
// QUILLVANE_CRASH_POINTS in the environment choose another workload and more points than usual.

#include "CrashWorkload.h"
#include "RecordingDisk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <linux/falloc.h>
#include <string>
#include <system_error>
#include <utility>

namespace {

unsigned setting(const char* name, unsigned usual) {
    const char* value = std::getenv(name);
    return value == nullptr ? usual : static_cast<unsigned>(std::strtoul(value, nullptr, 10));
}

const unsigned seed = setting("QUILLVANE_CRASH_SEED", 1);
constexpr unsigned megabytes = 24;

/// A disk with given contents.
class ContentDisk : public BlockDevice {
public:
    explicit ContentDisk(std::vector<std::byte> content) : content_(std::move(content)) {}
    std::uint64_t blockCount() const noexcept override { return content_.size() / blockSize; }
    std::uint64_t freeBlocks() override { return 0; }
    void read(std::uint64_t first, std::span<std::byte> into) override {
        if (first * blockSize + into.size() > content_.size())
            throw std::system_error(EIO, std::generic_category());
        std::memcpy(into.data(), content_.data() + first * blockSize, into.size());
    }
    void write(std::uint64_t, std::span<const std::byte>) override { std::abort(); }
    void reserve(std::uint64_t, std::uint64_t) override { std::abort(); }
    void sync() override {}

private:
    std::vector<std::byte> content_;
};

ext2_ino_t makeFile(Ext4Volume& volume, const char* name, mode_t mode = 0644) {
    return static_cast<ext2_ino_t>(
        volume.create(Ext4Volume::root, name, {S_IFREG | mode, 0, {}}, {}).st_ino);
}

CrashWorkload::Tree treeOn(std::vector<std::byte> content) {
    ContentDisk disk(std::move(content));
    const auto volume = Ext4Volume::open(disk, true);
    return CrashWorkload::treeOf(*volume);
}

/// Replays, checks and looks; what is wrong.
std::string problemWith(const PlainImages& images, const std::vector<std::byte>& content,
                        const CrashWorkload& workload, std::size_t events) {
    const std::string file = images.write(content).string();
    const Outcome replayed = runCommand("/usr/sbin/e2fsck -p " + file);
    if ((replayed.status & ~1) != 0) return "the replay failed:\n" + replayed.output;
    const Outcome checked = runCommand("/usr/sbin/e2fsck -fn " + file);
    if (checked.status != 0) return replayed.output + checked.output;
    return workload.compare(treeOn(PlainImages::read(file)), events);
}

void crashEverywhere(RecordingDisk& disk, unsigned operations, unsigned points) {
    CrashWorkload workload(disk, seed);
    workload.run(operations);
    const std::size_t whileOpen = disk.events();
    workload.close();
    const PlainImages images;
    std::minstd_rand random(seed);
    const std::size_t step = std::max<std::size_t>(1, disk.events() / points);
    std::size_t tested = 0;
    for (std::size_t at = 0; at <= disk.events(); at += 1 + random() % (2 * step - 1)) {
        const bool drops = tested++ % 2 == 1;
        // The most can be lost just before a sync.
        if (drops && random() % 2 == 0)
            while (at < disk.events() && !disk.isSync(at)) ++at;
        const auto content = drops ? disk.after(at, random) : disk.after(at);
        const std::string problem = problemWith(images, content, workload, at);
        ASSERT_EQ(problem, "") << "seed " << seed << ", after event " << at << " of "
                               << disk.events() << (drops ? ", some writes lost" : "");
    }
    ASSERT_EQ(problemWith(images, disk.after(disk.events()), workload, disk.events()), "");
    testing::Test::RecordProperty("events", static_cast<int>(whileOpen));
    testing::Test::RecordProperty("points", static_cast<int>(tested));
    EXPECT_GT(whileOpen, operations);
}

TEST(CrashTest, APowerCutAtAnyPointLosesNothingThatWasSynced) {
    RecordingDisk disk(megabytes, "-J size=4");
    crashEverywhere(disk, 800, setting("QUILLVANE_CRASH_POINTS", 300));
}

// Small groups, so that many are added.
constexpr const char* growingFormat = "-J size=4 -g 2048 -O meta_bg,^resize_inode";

TEST(CrashTest, SoWhileTheVolumeGrowsAndGivesBackRoom) {
    RecordingDisk disk(megabytes, growingFormat);
    disk.mayGrowTo(160);
    crashEverywhere(disk, 600, setting("QUILLVANE_CRASH_POINTS", 100));
    EXPECT_GT(disk.lengthenings(), 1U);
    EXPECT_GT(disk.discards(), 50U);
}

TEST(CrashTest, ASyncOfContentsThatWereWrittenOverIsNoTransaction) {
    RecordingDisk disk(megabytes, "-J size=4");
    const auto volume = Ext4Volume::open(disk, false);
    const auto file = makeFile(*volume, "file");
    const std::vector<std::byte> piece(BlockDevice::blockSize);
    std::size_t fewest = disk.events();
    // Now and then the file's times go on.
    for (int i = 0; i < 100; ++i) {
        const std::size_t before = disk.events();
        volume->write(file, 0, piece);
        volume->syncFile(file);
        fewest = std::min(fewest, disk.events() - before);
    }
    EXPECT_EQ(fewest, 2U); // the write and the sync
}

constexpr std::uint64_t pieces = 500;

/// Truncates a file of many pieces to its first, when so many directories have been made in the
/// same transaction. Answers between which events that was.
std::pair<std::size_t, std::size_t> truncateAfter(int directories, RecordingDisk& disk) {
    const Caller me{0, 0, 022};
    const auto volume = Ext4Volume::open(disk, false);
    const auto file = static_cast<ext2_ino_t>(
        volume->create(Ext4Volume::root, "file", {S_IFREG | 0644, 0, {}}, me).st_ino);
    const std::vector<std::byte> piece(BlockDevice::blockSize);
    for (std::uint64_t i = 0; i < pieces; ++i) volume->write(file, 2 * i * piece.size(), piece);
    volume->sync();
    for (int i = 0; i < directories; ++i)
        volume->create(Ext4Volume::root, std::to_string(i), {S_IFDIR | 0755, 0, {}}, me);
    const std::size_t before = disk.events();
    Ext4Volume::Changes changes;
    changes.size = piece.size();
    volume->setAttributes(file, changes);
    const std::size_t after = disk.events();
    volume->close();
    return {before, after};
}

/// How often the replay after a crash had to finish the truncation.
std::size_t finishedAfterCrashes(const RecordingDisk& disk, std::size_t from, std::size_t to) {
    const PlainImages images;
    std::size_t finished = 0;
    // The transaction counts with the last event but one.
    for (std::size_t at = to; at > from; at -= std::min(at - from, 1 + (to - at))) {
        const std::string name = images.write(disk.after(at)).string();
        const Outcome replayed = runCommand("/usr/sbin/e2fsck -p " + name);
        if (replayed.output.find("Truncating orphaned inode") != std::string::npos) ++finished;
        const Outcome checked = runCommand("/usr/sbin/e2fsck -fn " + name);
        EXPECT_EQ(checked.status, 0) << "after event " << at << ":\n" << checked.output;
        const auto size = treeOn(PlainImages::read(name)).at("file").size();
        EXPECT_TRUE(size == BlockDevice::blockSize ||
                    size == (2 * pieces - 1) * BlockDevice::blockSize)
            << size;
    }
    return finished;
}

TEST(CrashTest, ATruncationOfSeveralTransactionsIsFinishedByTheReplay) {
    // With the right number of directories the transaction is full in the middle.
    std::size_t finished = 0;
    for (int directories = 200; directories > 150 && finished == 0; --directories) {
        RecordingDisk disk(megabytes, "-J size=4");
        const auto [from, to] = truncateAfter(directories, disk);
        if (from < to) finished = finishedAfterCrashes(disk, from, to);
    }
    EXPECT_GT(finished, 0U);
}

TEST(CrashTest, SoOnAVolumeWithoutChecksumsAndWideNumbers) {
    RecordingDisk disk(megabytes, "-J size=4 -O ^metadata_csum,^64bit");
    crashEverywhere(disk, 300, setting("QUILLVANE_CRASH_POINTS", 60));
}

std::string difference(const CrashWorkload::Tree& found, const CrashWorkload::Tree& expected) {
    for (const auto& [name, content] : expected) {
        const auto same = found.find(name);
        if (same == found.end()) return name + " is missing";
        if (same->second == content) continue;
        const auto at =
            std::mismatch(content.begin(), content.end(), same->second.begin(), same->second.end());
        return name + ", of " + std::to_string(content.size()) + " bytes, has " +
               std::to_string(same->second.size()) + " and differs from byte " +
               std::to_string(at.first - content.begin());
    }
    return found.size() == expected.size() ? "" : "there is more than there should be";
}

void breakEverywhere(int error, std::size_t length, bool grows = false) {
    for (unsigned round = 0; round < 20; ++round) {
        RecordingDisk disk(megabytes, grows ? growingFormat : "-J size=4");
        if (grows) disk.mayGrowTo(160);
        CrashWorkload workload(disk, seed + round);
        disk.breakDown({10 + round * 67UL, length, error});
        workload.run(120);
        workload.close();
        const PlainImages images;
        const auto content = disk.after(disk.events());
        const Outcome checked =
            runCommand("/usr/sbin/e2fsck -fn " + images.write(content).string());
        ASSERT_EQ(checked.status, 0) << "seed " << seed + round << ":\n" << checked.output;
        ASSERT_EQ(difference(treeOn(content), workload.tree()), "") << "seed " << seed + round;
    }
}

TEST(CrashTest, ADiskThatFailsForAMomentLeavesAWholeVolume) {
    breakEverywhere(EIO, 1);
    breakEverywhere(EIO, 7);
    breakEverywhere(EIO, 7, true);
}

TEST(CrashTest, AFileWhoseContentsASyncMayHaveLostTellsItsOwner) {
    RecordingDisk disk(megabytes, "-J size=4");
    const auto volume = Ext4Volume::open(disk, false);
    const auto synced = makeFile(*volume, "synced");
    const auto first = makeFile(*volume, "first");
    const auto second = makeFile(*volume, "second");
    volume->write(synced, 0, std::vector<std::byte>(5000));
    volume->sync();
    volume->write(first, 0, std::vector<std::byte>(5000));
    volume->write(second, 0, std::vector<std::byte>(5000));
    disk.breakDown({disk.attempts(), 1, EIO});
    EXPECT_THROW(volume->syncFile(first), std::system_error);
    EXPECT_NO_THROW(volume->syncFile(first));
    EXPECT_NO_THROW(volume->syncFile(synced));
    EXPECT_THROW(volume->syncFile(second), std::system_error);
    EXPECT_NO_THROW(volume->syncFile(second));
    volume->close();
}

TEST(CrashTest, SoDoesAFileOfWhichAPartWasZeroed) {
    RecordingDisk disk(megabytes, "-J size=4");
    const auto volume = Ext4Volume::open(disk, false);
    const auto file = makeFile(*volume, "file");
    Ext4Volume::Changes shorter;
    shorter.size = 10;
    const std::vector<std::function<void()>> works = {
        [&] { volume->allocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 10, 100); },
        [&] { volume->setAttributes(file, shorter); }};
    for (const auto& work : works) {
        volume->write(file, 0, std::vector<std::byte>(5000, std::byte{1}));
        volume->sync();
        work();
        disk.breakDown({disk.attempts(), 1, EIO});
        EXPECT_THROW(volume->writeBehind(), std::system_error);
        EXPECT_NO_THROW(volume->writeBehind());
        EXPECT_TRUE(volume->lostContents());
        EXPECT_THROW(volume->syncFile(file), std::system_error);
        EXPECT_THROW(volume->sync(), std::system_error);
        EXPECT_NO_THROW(volume->sync());
    }
    volume->close();
    EXPECT_FALSE(volume->lostContents());
}

TEST(CrashTest, AWriteThatFailsHalfWayTakesTheSetUserIdBit) {
    RecordingDisk disk(megabytes, "-J size=4");
    const auto volume = Ext4Volume::open(disk, false);
    const auto file = makeFile(*volume, "file", 04755);
    const std::vector<std::byte> content(5000);
    volume->write(file, 0, content);
    volume->sync();
    ASSERT_NE(volume->attributes(file).st_mode & S_ISUID, 0U);
    disk.breakDown({disk.attempts(), 1, EIO});
    EXPECT_THROW(volume->write(file, 0, content, {1000, 1000, 0, 0}), std::system_error);
    EXPECT_EQ(volume->attributes(file).st_mode & S_ISUID, 0U);
    volume->close();
}

TEST(CrashTest, AVolumeThatIsClosedAtTheSecondAttemptTellsThatContentsMayBeLost) {
    RecordingDisk disk(megabytes, "-J size=4");
    const auto volume = Ext4Volume::open(disk, false);
    const auto file = makeFile(*volume, "file");
    volume->write(file, 0, std::vector<std::byte>(5000));
    disk.breakDown({disk.attempts(), 1, EIO});
    EXPECT_THROW(volume->close(), std::system_error);
    EXPECT_NO_THROW(volume->close());
    EXPECT_TRUE(volume->lostContents());
}

TEST(CrashTest, ADiskThatIsFullForAMomentLeavesAWholeVolume) {
    breakEverywhere(ENOSPC, 1);
    breakEverywhere(ENOSPC, 7);
    breakEverywhere(ENOSPC, 7, true);
}

} // namespace
