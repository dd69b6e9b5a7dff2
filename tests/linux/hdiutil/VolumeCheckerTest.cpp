// Opening images whose volume is sound, damaged, or cannot be looked at.

#include "linux/hdiutil/VolumeChecker.h"
#include "DamagedVolume.h"
#include "Ext4VolumeFixture.h"
#include "linux/hdiutil/ToolError.h"

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

class VolumeCheckerTest : public Ext4VolumeTest {
protected:
    void SetUp() override {
        const ext2_ino_t file = makeFile(root, "file");
        volume().write(file, 0, pattern(50'000, 1));
        disk.close();
    }
    std::unique_ptr<Ext4Volume> open(bool readOnly = false,
                                     const std::string& e2fsck = systemE2fsck) {
        const BlockedSignals signals;
        return openSoundVolume(disk.image(), readOnly, signals, e2fsck);
    }
    /// What the attempt to open the volume ends with.
    std::string failure(bool readOnly = false, const std::string& e2fsck = systemE2fsck) {
        try {
            open(readOnly, e2fsck);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "none";
    }
    /// A program of these lines that stands in for e2fsck.
    std::string program(const std::string& lines) {
        const auto path = disk.directory() / "program";
        std::ofstream(path) << "#!/bin/sh\n" << lines << '\n';
        ::chmod(path.c_str(), 0755);
        return path;
    }
    std::vector<std::byte> contents() { return readAll(disk.image()); }
    void makeUnclean() {
        makeFile(root, "later");
        volume().sync();
        disk.crash();
    }
    void expectFile() {
        const auto volume = open();
        std::vector<std::byte> back(50'000);
        const auto found = volume->lookup(root, "file");
        ASSERT_TRUE(found);
        EXPECT_EQ(volume->read(numberOf(*found), 0, back), back.size());
        EXPECT_EQ(back, pattern(50'000, 1));
        volume->close();
    }
};

TEST_F(VolumeCheckerTest, ASoundVolumeIsOpenedWithoutE2fsck) {
    const auto before = contents();
    EXPECT_EQ(failure(false, "/nonexistent"), "none");
    EXPECT_EQ(failure(true, "/nonexistent"), "none");
    EXPECT_EQ(contents(), before);
}

TEST_F(VolumeCheckerTest, AJournalIsReplayed) {
    makeUnclean();
    EXPECT_TRUE(open()->lookup(root, "later"));
    EXPECT_EQ(disk.check(), "");
}

TEST_F(VolumeCheckerTest, WhatCanBeCountedAgainIsRepaired) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.blockBitmap(), 2000);
    EXPECT_THROW(Ext4Volume::open(disk.image(), false), VolumeCorrupt);
    expectFile();
    EXPECT_EQ(disk.check(), "");
}

TEST_F(VolumeCheckerTest, ADamagedDescriptorThatHasNoCopyIsRefused) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.descriptors(), 3);
    EXPECT_THROW(Ext4Volume::open(disk.image(), false), VolumeCorrupt);
    EXPECT_THAT(failure(), HasSubstr("UNEXPECTED INCONSISTENCY"));
    damage.flip(damage.descriptors(), 3);
    expectFile();
}

TEST_F(VolumeCheckerTest, ARootThatIsDamagedIsNotCutAwayButRefused) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.inodePlace(root).block, damage.inodePlace(root).offset + 40);
    const std::string how = failure();
    EXPECT_THAT(how, HasSubstr("image data corrupted"));
    EXPECT_THAT(how, HasSubstr("without a risk"));
    EXPECT_THAT(how, HasSubstr("docs/damaged-items.md"));
    // Healed by hand, it is as it was: nothing of it has been taken.
    damage.flip(damage.inodePlace(root).block, damage.inodePlace(root).offset + 40);
    expectFile();
}

TEST_F(VolumeCheckerTest, AVolumeThatSaysItIsDamagedIsCheckedAsAWhole) {
    volume().noteFailure(EIO);
    disk.close();
    EXPECT_TRUE(Ext4Volume::needsCheck(disk.image()));
    expectFile();
    EXPECT_FALSE(Ext4Volume::needsCheck(disk.image()));
}

TEST_F(VolumeCheckerTest, AnImageThatCannotBeWrittenIsNotRepaired) {
    const DamagedVolume damage(disk.image());
    damage.flip(damage.blockBitmap(), 2000);
    auto before = contents();
    EXPECT_THROW(open(true), VolumeCorrupt);
    EXPECT_EQ(contents(), before);
    damage.flip(damage.blockBitmap(), 2000);
    makeUnclean();
    before = contents();
    EXPECT_THAT(failure(true), HasSubstr("not closed properly"));
    EXPECT_EQ(contents(), before);
}

TEST_F(VolumeCheckerTest, WithoutE2fsckTheVolumeStaysAsItIs) {
    makeUnclean();
    const auto before = contents();
    EXPECT_THAT(failure(false, "/nonexistent"), HasSubstr("e2fsck could not be started"));
    EXPECT_THAT(failure(false, program("kill -9 $$")), HasSubstr("ended unexpectedly"));
    EXPECT_THAT(failure(false, program("echo no memory; exit 8")), HasSubstr("no memory"));
    for (const char* how : {"/nonexistent", "/bin/false"})
        EXPECT_THAT(failure(false, how), Not(HasSubstr("passphrase")));
    EXPECT_EQ(contents(), before);
    expectFile();
}

TEST_F(VolumeCheckerTest, OnlyASoundVolumeIsBelievedToBeRepaired) {
    makeUnclean();
    EXPECT_THAT(failure(false, program("exit 0")), HasSubstr("corrupt"));
    EXPECT_THAT(failure(false, program("exit 1")), HasSubstr("corrupt"));
    EXPECT_THAT(failure(false, program("echo the reason; exit 5")), HasSubstr("the reason"));
    expectFile();
}

TEST_F(VolumeCheckerTest, ASignalEndsTheCheck) {
    makeUnclean();
    const auto before = contents();
    const std::string slow = program("exec sleep 60");
    const BlockedSignals signals;
    // To this thread: the disk's own does not block signals here, as a server's does.
    std::thread sender([checking = ::pthread_self()] {
        std::this_thread::sleep_for(200ms);
        ::pthread_kill(checking, SIGTERM);
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(openSoundVolume(disk.image(), false, signals, slow), Interrupted);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
    sender.join();
    EXPECT_EQ(contents(), before);
}

/// No file may grow beyond `bytes`, which fails as a full disk does, while the object lives.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit limit{bytes, former_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &former_); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit former_{};
};

TEST_F(VolumeCheckerTest, ADiskThatRefusesARepairKeepsTheJournal) {
    makeUnclean();
    {
        // What is replayed lies both below and above; the journal that would be given up, below.
        const FullDisk full((1 << 20) + 4096);
        EXPECT_THAT(failure(), HasSubstr("needs to be repaired, which failed"));
    }
    EXPECT_TRUE(open()->lookup(root, "later"));
    expectFile();
    EXPECT_EQ(disk.check(), "");
}

} // namespace
