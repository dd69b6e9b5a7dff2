#include "Quillvane/FileDescriptor.h"
#include "Quillvane/Platform.h"
#include "tests/support/FuseMount.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

class HiddenListTest : public testing::Test {
protected:
    HiddenListTest() {
        writeFile(item, "");
        writeFile(folder / "b", "");
    }

    static mode_t modeOf(const fs::path& path) {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
    }

    /// Writes until the disk is full.
    static void fillUp(const fs::path& file) {
        const FileDescriptor fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const std::string block(4096, 'x');
        while (::write(fd.get(), block.data(), block.size()) > 0) {
        }
        EXPECT_EQ(errno, ENOSPC);
    }

    TemporaryFolder folder;
    fs::path item = folder / "Docs é.quillvane";
    fs::path list = folder / ".hidden";
};

TEST_F(HiddenListTest, IsMadeAndRemovedWithItsOnlyLine) {
    EXPECT_FALSE(Platform::isHidden(item));
    EXPECT_FALSE(Platform::setHidden(item, true));
    EXPECT_EQ(readFile(list), "Docs é.quillvane\n");
    EXPECT_TRUE(Platform::isHidden(item));
    EXPECT_FALSE(Platform::setHidden(item, true));
    EXPECT_EQ(readFile(list), "Docs é.quillvane\n") << "once is enough";
    EXPECT_FALSE(Platform::setHidden(item, false));
    EXPECT_FALSE(fs::exists(list));
    EXPECT_FALSE(Platform::setHidden(item, false));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 2);
}

TEST_F(HiddenListTest, KeepsOtherLinesAndTheMode) {
    writeFile(list, "Docs\n\nother \nlast");
    fs::permissions(list, static_cast<fs::perms>(0664));
    EXPECT_FALSE(Platform::setHidden(item, true));
    EXPECT_EQ(readFile(list), "Docs é.quillvane\nDocs\n\nother \nlast");
    EXPECT_EQ(modeOf(list), 0664U);
    EXPECT_FALSE(Platform::setHidden(item, false));
    EXPECT_EQ(readFile(list), "Docs\n\nother \nlast");
    EXPECT_EQ(modeOf(list), 0664U);
}

TEST_F(HiddenListTest, IsByteForByteAsItWasAfterHidingAndShowing) {
    for (const std::string before :
         {"", "a", "a\n", "\n", "\n\n", "a\n\n", "a\nb", "a\nb\n", "\na", " \n ", "a\r\nb\r\n",
          "a\r\nb", "\r\n", "Docs é.quillvane\r\n", "Docs é.quillvane \nDocs é"}) {
        writeFile(list, before);
        EXPECT_FALSE(Platform::setHidden(item, true));
        EXPECT_TRUE(Platform::isHidden(item)) << testing::PrintToString(before);
        EXPECT_FALSE(Platform::setHidden(item, true));
        EXPECT_FALSE(Platform::setHidden(item, false));
        EXPECT_FALSE(Platform::isHidden(item));
        EXPECT_EQ(readFile(list), before);
    }
}

TEST_F(HiddenListTest, IsAsItWasWhicheverOfTwoIsShownFirst) {
    for (const std::string before : {"", "a", "a\n", "a\r\nc"}) {
        for (const auto& [first, second] : {std::pair(item, folder / "b"), {folder / "b", item}}) {
            writeFile(list, before);
            EXPECT_FALSE(Platform::setHidden(item, true));
            EXPECT_FALSE(Platform::setHidden(folder / "b", true));
            EXPECT_FALSE(Platform::setHidden(first, false));
            EXPECT_TRUE(Platform::isHidden(second));
            EXPECT_FALSE(Platform::setHidden(second, false));
            EXPECT_EQ(readFile(list), before);
        }
    }
}

TEST_F(HiddenListTest, LosesALineWhereverItStands) {
    const std::pair<const char*, const char*> cases[]{
        {"b\na\nc\n", "a\nc\n"}, {"a\nb\nc\n", "a\nc\n"}, {"a\nc\nb\n", "a\nc\n"},
        {"b\na", "a"},           {"a\nb", "a"},           {"b\na\nb", "a"},
        {"b\nb\na\n", "a\n"},    {"a\nb\nb\n", "a\n"},    {"a\n\nb", "a\n"}};
    for (const auto& [before, after] : cases) {
        writeFile(list, before);
        EXPECT_FALSE(Platform::setHidden(folder / "b", false));
        EXPECT_FALSE(Platform::isHidden(folder / "b"));
        EXPECT_EQ(readFile(list), after) << testing::PrintToString(before);
    }
}

TEST_F(HiddenListTest, ComparesWholeLines) {
    writeFile(list, "Docs é.quillvane2\nxDocs é.quillvane\n");
    EXPECT_FALSE(Platform::isHidden(item));
    EXPECT_FALSE(Platform::setHidden(item, false));
    EXPECT_EQ(readFile(list), "Docs é.quillvane2\nxDocs é.quillvane\n");
}

TEST_F(HiddenListTest, HasNoLineForWhatIsHiddenAnywayOrCannotBeListed) {
    writeFile(folder / ".dot", "");
    writeFile(folder / "line\nfeed", "");
    EXPECT_FALSE(Platform::setHidden(folder / ".dot", true));
    EXPECT_FALSE(Platform::setHidden(folder / "line\nfeed", true));
    EXPECT_FALSE(fs::exists(list));
    EXPECT_TRUE(Platform::isHidden(folder / ".dot"));
    EXPECT_FALSE(Platform::isHidden(folder / "line\nfeed"));
}

TEST_F(HiddenListTest, HidesNothingThatIsNotThere) {
    EXPECT_EQ(Platform::setHidden(folder / "missing", true), std::errc::no_such_file_or_directory);
    EXPECT_TRUE(Platform::setHidden(folder / "", true));
    EXPECT_FALSE(fs::exists(list));
    writeFile(list, "missing\n");
    EXPECT_FALSE(Platform::setHidden(folder / "missing", false)) << "a stale line may go";
    EXPECT_FALSE(fs::exists(list));
}

TEST_F(HiddenListTest, LeavesListsAloneThatAreNoPlainFile) {
    writeFile(folder / "elsewhere", "a\n");
    fs::create_symlink("elsewhere", list);
    EXPECT_TRUE(Platform::setHidden(item, true));
    EXPECT_TRUE(fs::is_symlink(list));
    EXPECT_EQ(readFile(folder / "elsewhere"), "a\n");
    fs::remove(list);
    fs::create_directory(list);
    EXPECT_TRUE(Platform::setHidden(item, true));
    EXPECT_FALSE(Platform::isHidden(item));
}

TEST_F(HiddenListTest, LosesNoLineToASecondEditor) {
    std::vector<std::thread> editors;
    editors.reserve(8);
    for (int i = 0; i < 8; ++i) writeFile(folder / std::to_string(i), "");
    for (int i = 0; i < 8; ++i)
        editors.emplace_back(
            [&, i] { EXPECT_FALSE(Platform::setHidden(folder / std::to_string(i), true)); });
    for (std::thread& editor : editors) editor.join();
    EXPECT_EQ(readFile(list).size(), 16U);
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(Platform::isHidden(folder / std::to_string(i)));
}

TEST_F(HiddenListTest, DoesNotWaitLongForAnotherProgramsLock) {
    const FileDescriptor lock(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Platform::setHidden(item, true));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_TRUE(Platform::isHidden(item));
}

TEST_F(HiddenListTest, RemovesWhatAKilledProgramLeftBesideIt) {
    writeFile(folder / ".quillvane-0123456789abcdef.tmp", "Docs é.qui");
    EXPECT_FALSE(Platform::setHidden(item, false)) << "it was not hidden yet";
    EXPECT_FALSE(fs::exists(folder / ".quillvane-0123456789abcdef.tmp"));
}

TEST_F(HiddenListTest, LosesALineOnAFullDiskToo) {
    const fs::path disk = folder / "disk";
    fs::create_directory(disk);
    const Mounted mounted(disk, "tmpfs", "none", "size=64k");
    if (!mounted) GTEST_SKIP() << "mounting is not permitted here";
    writeFile(disk / "Docs", "");
    const std::string kept(5000, 'x');
    writeFile(disk / ".hidden", "first\nDocs\n" + kept + "\nlast");
    fs::permissions(disk / ".hidden", static_cast<fs::perms>(0664));
    fillUp(disk / "filler");
    EXPECT_EQ(Platform::setHidden(disk / "filler", true), std::errc::no_space_on_device);
    EXPECT_TRUE(readFile(disk / ".hidden") == "first\nDocs\n" + kept + "\nlast");
    EXPECT_FALSE(Platform::setHidden(disk / "Docs", false));
    EXPECT_TRUE(readFile(disk / ".hidden") == "first\n" + kept + "\nlast");
    EXPECT_EQ(modeOf(disk / ".hidden"), 0664U);
    EXPECT_EQ(std::distance(fs::directory_iterator(disk), fs::directory_iterator()), 3);
}

} // namespace
