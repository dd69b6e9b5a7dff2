#include "Quillvane/OperationNote.h"
#include "Quillvane/Platform.h"
#include "tests/support/RecordingTools.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sys/stat.h>
#include <time.h>

namespace {

namespace fs = std::filesystem;
using Step = OperationNote::Step;
using testing::HasSubstr;

class OperationNoteTest : public testing::Test {
protected:
    OperationNoteTest() { fs::create_directory(parent / folder); }

    OperationNote::Contents protection() const {
        OperationNote::Contents contents;
        contents.operation = OperationNote::Operation::protect;
        contents.directory = parent.path();
        contents.folder = folder;
        contents.item = folder + ".quillvane";
        contents.image = ".Quillvane-X.sparseimage";
        return contents;
    }
    /// Notes a protection and loses the note, as a killed program does.
    std::string interrupted() const {
        OperationNote::begin(protection());
        return OperationNote::all().at(0).id;
    }
    std::string refusal() const {
        try {
            OperationNote::begin(protection());
        } catch (const OperationNoteError& error) {
            return error.what();
        }
        return "noted";
    }
    static std::uint64_t inodeOf(const fs::path& path) {
        struct stat status {};
        ::stat(path.c_str(), &status);
        return status.st_ino;
    }

    RecordingTools tools;
    TemporaryFolder parent;
    std::string folder = "Dö\xff\n% cs";
};

TEST_F(OperationNoteTest, TellsWhatWasNoted) {
    interrupted();
    const auto notes = OperationNote::all();
    ASSERT_EQ(notes.size(), 1U);
    EXPECT_TRUE(notes[0].interrupted);
    const auto& contents = notes[0].contents;
    EXPECT_EQ(contents.operation, OperationNote::Operation::protect);
    EXPECT_EQ(contents.directory, parent.path());
    EXPECT_EQ(contents.directoryInode, inodeOf(parent.path()));
    EXPECT_EQ(contents.directoryBirth, Platform::birthTime(parent.path()));
    EXPECT_EQ(contents.folder, folder);
    EXPECT_EQ(contents.item, folder + ".quillvane");
    EXPECT_EQ(contents.image, ".Quillvane-X.sparseimage");
    EXPECT_EQ(contents.originalInode, inodeOf(parent / folder));
    EXPECT_EQ(contents.originalBirth, Platform::birthTime(parent / folder));
    EXPECT_TRUE(contents.steps.empty());
}

TEST_F(OperationNoteTest, ANoteWithoutTheDirectorysBirthIsRead) {
    interrupted();
    const fs::path file = tools.notes().at(0);
    std::string text = readFile(file);
    const auto member = text.find("\"directoryBirth\"");
    ASSERT_NE(member, std::string::npos);
    writeFile(file, text.erase(member, text.find(',', member) + 1 - member));
    EXPECT_EQ(OperationNote::all().at(0).contents.directoryBirth, 0);
}

TEST_F(OperationNoteTest, ANoteThatIsGoneTakesNoMoreSteps) {
    OperationNote note = OperationNote::begin(protection());
    fs::remove_all(tools.stateDirectory());
    EXPECT_THROW(note.reach(Step::deleting, 1), fs::filesystem_error);
}

TEST_F(OperationNoteTest, ADeletionThatBeginsRevokesThatTheImageIsNotNeeded) {
    OperationNote note = OperationNote::begin(protection());
    note.reach(Step::dropping);
    note.reach(Step::deleting, 7);
    const auto written = OperationNote::all().at(0).contents;
    for (const auto& contents : {note.contents(), written}) {
        EXPECT_EQ(contents.step(Step::deleting), 7U);
        EXPECT_FALSE(contents.step(Step::dropping));
    }
    note.reach(Step::dropping); // when it has been given up after all
    EXPECT_TRUE(note.contents().step(Step::dropping));
    EXPECT_TRUE(note.contents().step(Step::deleting));
}

TEST_F(OperationNoteTest, ADirectoryKeepsItsBirth) {
    const auto birth = Platform::birthTime(parent / folder);
    if (birth == 0) GTEST_SKIP() << "this file system keeps no birth times";
    ::timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_NEAR(static_cast<double>(birth), static_cast<double>(now.tv_sec) * 1e9, 60e9);
    writeFile(parent / folder / "file", "contents");
    fs::last_write_time(parent / folder, fs::file_time_type());
    EXPECT_EQ(Platform::birthTime(parent / folder), birth);
    EXPECT_EQ(Platform::birthTime(parent / "missing"), 0);
}

TEST_F(OperationNoteTest, IsForTheUserAlone) {
    interrupted();
    struct stat status {};
    for (const fs::path& place :
         {tools.stateDirectory(), tools.stateDirectory() / "operations", tools.notes().at(0)}) {
        ASSERT_EQ(::stat(place.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 077, 0U) << place;
    }
}

TEST_F(OperationNoteTest, KeepsTheStepsReached) {
    auto note = OperationNote::begin(protection());
    note.reach(Step::deleting, 7);
    note.reach(Step::done);
    EXPECT_EQ(note.contents().step(Step::deleting), 7U);
    const auto found = OperationNote::all().at(0).contents;
    EXPECT_EQ(found.step(Step::deleting), 7U);
    EXPECT_EQ(found.step(Step::done), 0U);
    EXPECT_EQ(found.step(Step::copied), std::nullopt);
}

TEST_F(OperationNoteTest, ALineThatWasCutShortDoesNotCount) {
    const std::string id = interrupted();
    std::ofstream(tools.notes().at(0), std::ios::app) << "deleting 12";
    auto note = OperationNote::take(id);
    ASSERT_TRUE(note.has_value());
    EXPECT_EQ(note->contents().step(Step::deleting), std::nullopt);
    note->reach(Step::done);
    EXPECT_EQ(OperationNote::all().at(0).contents.step(Step::done), 0U);
}

TEST_F(OperationNoteTest, ANoteWithoutItsFirstLineGoes) {
    interrupted();
    const fs::path file = tools.notes().at(0);
    fs::resize_file(file, fs::file_size(file) - 1);
    EXPECT_TRUE(OperationNote::all().empty());
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(OperationNoteTest, ANoteThatIsNotUnderstoodStays) {
    interrupted();
    const fs::path file = tools.notes().at(0);
    const std::string version = "\"version\":1";
    std::string text = readFile(file);
    writeFile(file, text.replace(text.find(version), version.size(), "\"version\":2"));
    EXPECT_TRUE(OperationNote::all().empty());
    EXPECT_EQ(readFile(file), text);
    EXPECT_NO_THROW(OperationNote::begin(protection()));
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(OperationNoteTest, NamesThatLeadElsewhereAreNotTaken) {
    interrupted();
    const fs::path file = tools.notes().at(0);
    std::string text = readFile(file);
    const std::string image = ".Quillvane-X.sparseimage";
    text.replace(text.find(image), image.size(), "../" + image);
    writeFile(file, text);
    EXPECT_TRUE(OperationNote::all().empty());
}

TEST_F(OperationNoteTest, AnOperationUnderWayIsNobodyElses) {
    const auto note = OperationNote::begin(protection());
    const auto notes = OperationNote::all();
    ASSERT_EQ(notes.size(), 1U);
    EXPECT_FALSE(notes[0].interrupted);
    EXPECT_FALSE(OperationNote::take(notes[0].id).has_value());
    EXPECT_THAT(refusal(), HasSubstr("Another program is at work on"));
}

TEST_F(OperationNoteTest, AnotherFolderIsFree) {
    const auto note = OperationNote::begin(protection());
    auto other = protection();
    other.folder = "Other";
    fs::create_directory(parent / "Other");
    EXPECT_NO_THROW(OperationNote::begin(other));
}

TEST_F(OperationNoteTest, ATakenNoteIsNobodyElses) {
    const std::string id = interrupted();
    auto note = OperationNote::take(id);
    ASSERT_TRUE(note.has_value());
    EXPECT_FALSE(OperationNote::take(id).has_value());
    note->remove();
    note.reset();
    EXPECT_FALSE(OperationNote::take(id).has_value());
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(OperationNoteTest, ADirectoryThatOthersCanChangeIsRefused) {
    fs::create_directory(tools.stateDirectory());
    fs::permissions(tools.stateDirectory(), fs::perms::all);
    EXPECT_THAT(refusal(), HasSubstr("Nothing was changed"));
    EXPECT_THAT(refusal(), HasSubstr(tools.stateDirectory().string()));
    EXPECT_TRUE(OperationNote::all().empty());
}

TEST_F(OperationNoteTest, APlaceThatIsNoDirectoryIsRefused) {
    writeFile(tools.stateDirectory(), "");
    EXPECT_THAT(refusal(), HasSubstr("Not a directory"));
}

TEST_F(OperationNoteTest, LiesWhereTheSystemKeepsState) {
    Platform::setStateDirectory({});
    ::setenv("XDG_STATE_HOME", "/some/where", 1);
    EXPECT_EQ(Platform::stateDirectory(), "/some/where/quillvane");
    ::setenv("XDG_STATE_HOME", "relative", 1);
    ::setenv("HOME", "/home/ada", 1);
    EXPECT_EQ(Platform::stateDirectory(), "/home/ada/.local/state/quillvane");
    ::unsetenv("XDG_STATE_HOME");
    EXPECT_EQ(Platform::stateDirectory(), "/home/ada/.local/state/quillvane");
}

} // namespace
