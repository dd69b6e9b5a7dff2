#include "Quillvane/CheckedDeletion.h"
#include "Quillvane/FileDescriptor.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using testing::Optional;

class CheckedDeletionTest : public testing::Test {
protected:
    CheckedDeletionTest() {
        fs::create_directory(parent / "Docs");
        writeFile(file, "contents");
        look();
    }

    void look() { ASSERT_EQ(::lstat(file.c_str(), &seen), 0); }

    std::optional<std::string> remove() const {
        const FileDescriptor folder(::open((parent / "Docs").c_str(), O_RDONLY | O_DIRECTORY));
        const Platform::WriterCheck writers;
        return CheckedDeletion(&writers).remove(folder.get(), "file", seen);
    }
    /// Nothing but the folder, with at most the file in it.
    void expectTidy() const {
        EXPECT_EQ(std::distance(fs::directory_iterator(parent.path()), {}), 1);
        for (const auto& entry : fs::directory_iterator(parent / "Docs"))
            EXPECT_EQ(entry.path(), file);
    }

    TemporaryFolder parent;
    fs::path file = parent / "Docs/file";
    struct stat seen {};
};

TEST_F(CheckedDeletionTest, RemovesWhatIsAsItWasSeen) {
    EXPECT_EQ(remove(), std::nullopt);
    EXPECT_FALSE(fs::exists(file));
    expectTidy();
}

TEST_F(CheckedDeletionTest, RemovesOneNameOfSeveral) {
    fs::create_hard_link(file, parent / "other");
    EXPECT_EQ(remove(), std::nullopt);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(readFile(parent / "other"), "contents");
}

TEST_F(CheckedDeletionTest, PutsBackWhatWasSavedSince) {
    writeFile(file, "CONTENTS");
    EXPECT_THAT(remove(), Optional(std::string("file")));
    EXPECT_EQ(readFile(file), "CONTENTS");
    expectTidy();
}

TEST_F(CheckedDeletionTest, PutsBackWhatTookItsPlace) {
    writeFile(parent / "other", "CONTENTS");
    const timespec times[] = {seen.st_atim, seen.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, (parent / "other").c_str(), times, 0), 0);
    fs::rename(parent / "other", file);
    EXPECT_THAT(remove(), Optional(std::string("file")));
    EXPECT_EQ(readFile(file), "CONTENTS");
    expectTidy();
}

TEST_F(CheckedDeletionTest, PutsBackWhatSomebodyHasOpen) {
    const FileDescriptor writer(::open(file.c_str(), O_WRONLY));
    EXPECT_THAT(remove(), Optional(std::string("file")));
    expectTidy();
}

TEST_F(CheckedDeletionTest, RemovesLinks) {
    fs::remove(file);
    fs::create_symlink("elsewhere", file);
    look();
    EXPECT_EQ(remove(), std::nullopt);
    expectTidy();
    EXPECT_FALSE(fs::is_symlink(file));
}

TEST_F(CheckedDeletionTest, PutsBackWhatTookALinksPlace) {
    fs::remove(file);
    fs::create_symlink("elsewhere", file);
    look();
    fs::create_symlink("somewhere", parent / "other");
    fs::rename(parent / "other", file);
    EXPECT_THAT(remove(), Optional(std::string("file")));
    EXPECT_EQ(fs::read_symlink(file), "somewhere");

    look();
    writeFile(parent / "other", "CONTENTS");
    fs::rename(parent / "other", file);
    EXPECT_THAT(remove(), Optional(std::string("file")));
    EXPECT_EQ(readFile(file), "CONTENTS");
    expectTidy();
}

TEST_F(CheckedDeletionTest, PutsBackAFolderThatTookItsPlace) {
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_THAT(remove(), Optional(std::string("file")));
    EXPECT_TRUE(fs::is_directory(file));
    expectTidy();
}

TEST_F(CheckedDeletionTest, IsDoneWhenItIsGone) {
    fs::remove(file);
    EXPECT_EQ(remove(), std::nullopt);
    expectTidy();
}

TEST_F(CheckedDeletionTest, LeavesWhatComesOnceItIsGone) {
    fs::remove(file);
    constexpr int most = 1000;
    const auto source = [&](int number) { return parent / ("source" + std::to_string(number)); };
    for (int number = 0; number < most; ++number) writeFile(source(number), "CONTENTS");
    std::atomic<bool> done = false;
    std::thread other([&] {
        for (int number = 0; number < most; ++number)
            while (::link(source(number).c_str(), file.c_str()) != 0) std::this_thread::yield();
        done = true;
    });
    for (int kept = 0; !done; ++kept)
        if (const auto name = remove())
            fs::rename(parent / "Docs" / *name, parent / ("kept" + std::to_string(kept)));
    other.join();
    int lost = 0;
    for (int number = 0; number < most; ++number)
        lost += fs::hard_link_count(source(number)) == 1 ? 1 : 0;
    EXPECT_EQ(lost, 0);
}

TEST_F(CheckedDeletionTest, TellsWhatTheSystemDoesNotLetGo) {
    fs::permissions(parent / "Docs", fs::perms::owner_read | fs::perms::owner_exec |
                                         fs::perms::others_read | fs::perms::others_exec);
    EXPECT_TRUE(asOrdinaryUser(parent.path(), [&] {
        try {
            remove();
            return false;
        } catch (const std::system_error& error) {
            return error.code().value() == EACCES;
        }
    }));
    fs::permissions(parent / "Docs", fs::perms::owner_all);
    EXPECT_EQ(readFile(file), "contents");
    expectTidy();
}

} // namespace
