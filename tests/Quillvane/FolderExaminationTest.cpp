#include "Quillvane/FolderExamination.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/Platform.h"
#include "Quillvane/VaultError.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class FolderExaminationTest : public testing::Test {
protected:
    FolderExaminationTest() {
        fs::create_directories(docs / "a/b");
        writeFile(docs / "a/b/deep", "deep");
        writeFile(docs / "file", "contents");
        fs::create_symlink("file", docs / "link");
        fs::create_hard_link(docs / "file", docs / "second name");
        EXPECT_EQ(::mkfifo((docs / "fifo").c_str(), 0600), 0);
    }

    /// The reason that is told after `change`, without the sentence before it; empty when nothing
    /// is noticed.
    std::string noticed(const std::function<void()>& change) {
        const HeldFolder held(docs);
        const FolderRecord record = FolderExamination::record(held, nullptr);
        change();
        try {
            FolderExamination::requireUnchanged(held, record, nullptr);
        } catch (const VaultError& error) {
            EXPECT_EQ(error.kind(), VaultError::Case::verificationFailed);
            return error.errorDescription().substr(error.errorDescription().find('\n') + 1);
        }
        return "";
    }

    TemporaryFolder parent;
    fs::path docs = parent / "Docs";
};

TEST_F(FolderExaminationTest, LookingChangesNothing) {
    EXPECT_EQ(noticed([] {}), "");
}

TEST_F(FolderExaminationTest, ReadingChangesNothing) {
    EXPECT_EQ(noticed([this] { readFile(docs / "a/b/deep"); }), "");
}

TEST_F(FolderExaminationTest, NoticesEveryChange) {
    const char* const changed = "\"Docs/a/b/deep\" changed while the folder was being protected.";
    const fs::path deep = docs / "a/b/deep";
    EXPECT_EQ(noticed([&] { writeFile(deep, "DEEP"); }), changed);
    EXPECT_EQ(noticed([&] { fs::resize_file(deep, 1); }), changed);
    EXPECT_EQ(noticed([&] { fs::permissions(deep, fs::perms::owner_read); }), changed);
    EXPECT_EQ(noticed([&] {
                  writeFile(docs / "a/new", "DEEP");
                  fs::rename(docs / "a/new", deep);
              }).substr(0, 7),
              "\"Docs/a");
    EXPECT_EQ(noticed([&] { fs::create_hard_link(deep, parent / "outside"); }), changed);
}

TEST_F(FolderExaminationTest, NoticesWhatComesAndGoes) {
    const char* const folder = "\"Docs/a\" changed while the folder was being protected.";
    EXPECT_EQ(noticed([&] { writeFile(docs / "a/new", ""); }), folder);
    EXPECT_EQ(noticed([&] { fs::rename(docs / "a/new", docs / "a/newer"); }), folder);
    EXPECT_EQ(noticed([&] { fs::remove(docs / "a/newer"); }), folder);
}

TEST_F(FolderExaminationTest, NoticesAFolderInItsPlace) {
    const auto exchange = [&] {
        fs::rename(docs, parent / "elsewhere");
        fs::create_directory(docs);
    };
    EXPECT_EQ(noticed(exchange), "\"Docs\" was exchanged for another folder while the folder was "
                                 "being protected.");
}

TEST_F(FolderExaminationTest, NoticesThatTheFolderIsGone) {
    EXPECT_EQ(noticed([&] { fs::rename(docs, parent / "elsewhere"); }),
              "Something in \"Docs\" was removed or renamed while the folder was being protected.");
}

TEST_F(FolderExaminationTest, NoticesWhatComesAtTheTop) {
    EXPECT_EQ(noticed([&] { writeFile(docs / "new\nname", ""); }),
              "\"Docs/new\\nname\" appeared while the folder was being protected.");
}

TEST_F(FolderExaminationTest, FilesOfTheSystemAtTheTopMayComeAndChange) {
    EXPECT_EQ(noticed([&] { writeFile(docs / ".DS_Store", "1"); }), "");
    EXPECT_EQ(noticed([&] { writeFile(docs / ".DS_Store", "22"); }), "");
    writeFile(docs / "a/.DS_Store", "1");
    EXPECT_EQ(noticed([&] { writeFile(docs / "a/.DS_Store", "22"); }),
              "\"Docs/a/.DS_Store\" changed while the folder was being protected.");
}

TEST_F(FolderExaminationTest, WhereVolumesHoldNothingOfTheSystemsItsNamesAreTheUsers) {
    if (Platform::keepsFilesOnVolumes()) GTEST_SKIP() << "the system keeps files on volumes";
    EXPECT_EQ(noticed([&] { writeFile(docs / ".VolumeIcon.icns", "new"); }),
              "\"Docs/.VolumeIcon.icns\" appeared while the folder was being protected.");
}

TEST_F(FolderExaminationTest, NoticesWhoIsWriting) {
    const char* const writing = "\"Docs/a/b/deep\" is open for writing in another program.";
    const fs::path deep = docs / "a/b/deep";
    int fd = -1;
    EXPECT_EQ(noticed([&] { fd = ::open(deep.c_str(), O_WRONLY); }), writing);
    ::close(fd);
    EXPECT_EQ(noticed([&] { fd = ::open(deep.c_str(), O_RDONLY); }), "") << "reading disturbs not";
    ::close(fd);
    fd = ::open(deep.c_str(), O_RDWR);
    void* const mapped = ::mmap(nullptr, 4, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(mapped, MAP_FAILED);
    const HeldFolder held(docs);
    EXPECT_THROW(FolderExamination::record(held, nullptr), VaultError);
    ::munmap(mapped, 4);
    EXPECT_NO_THROW(FolderExamination::record(held, nullptr));
}

TEST_F(FolderExaminationTest, EndsOnRequest) {
    const HeldFolder held(docs);
    const FolderRecord record = FolderExamination::record(held, nullptr);
    Cancellation cancellation;
    cancellation.request();
    EXPECT_THROW(FolderExamination::record(held, &cancellation), OperationCancelled);
    EXPECT_THROW(FolderExamination::requireUnchanged(held, record, &cancellation),
                 OperationCancelled);
}

} // namespace
