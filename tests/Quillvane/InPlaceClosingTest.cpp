#include "InPlaceFixture.h"

#include "tests/support/FuseMount.h"

namespace {

namespace fs = std::filesystem;
using Call = RecordingTools::Call;
using Case = VaultError::Case;

class InPlaceClosingTest : public InPlaceFixture {};

// Deactivating

TEST_F(InPlaceClosingTest, DeactivatingEjectsAndRemovesTheFolder) {
    openAsFolder();
    deactivate();
    const std::vector<Call> calls = tools.calls();
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[2], (Call{"hdiutil", {"detach", folder.string()}, std::nullopt}));
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_TRUE(VaultEngine::isHidden(item)) << "showing it is the caller's business";
    recover();
    EXPECT_EQ(entries(), closed);
}

TEST_F(InPlaceClosingTest, DeactivatingKeepsAFolderWithSomethingInIt) {
    activate();
    writeFile(folder / "new", "x");
    deactivate();
    EXPECT_EQ(readFile(folder / "new"), "x");
    fs::remove_all(folder);
    writeFile(folder, "file");
    deactivate();
    EXPECT_EQ(readFile(folder), "file");
    fs::remove(folder);
    fs::create_directory(place / "empty");
    fs::create_directory_symlink("empty", folder);
    deactivate();
    EXPECT_TRUE(fs::is_symlink(folder));
    EXPECT_TRUE(fs::is_directory(place / "empty"));
}

TEST_F(InPlaceClosingTest, AFailedDetachKeepsTheFolderAndIsNeverForced) {
    fs::create_directory(folder);
    const FuseMount mount(folder, item);
    SKIP_UNLESS(mount);
    for (const char* words : {"Resource busy", "RESOURCE BUSY", "busybody"}) {
        tools.play("hdiutil", "detach", "echo '" + std::string(words) + "' >&2; exit 1");
        EXPECT_EQ(failureKind([&] { deactivate(); }), Case::detachBusy) << words;
    }
    tools.play("hdiutil", "detach", "echo busy; printf '\\n gone \\n' >&2; exit 16");
    const auto error = failure([&] { deactivate(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorDescription(), VaultError::detachFailed("gone").errorDescription());
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(tools.calls().size(), 4U);
    for (const std::string& line : tools.commandLines())
        EXPECT_EQ(line, "hdiutil detach " + folder.string());
}

TEST_F(InPlaceClosingTest, AFailedDetachIsDoneWhenAnotherProgramHasClosedTheVolume) {
    fs::create_directory(folder);
    tools.play("hdiutil", "detach", "echo 'detach failed - No such file or directory' >&2; exit 1");
    deactivate();
    EXPECT_EQ(entries(), closed);
    fs::create_directory(folder);
    const DeadFuseMount dead(folder, item);
    SKIP_UNLESS(dead);
    deactivate();
    EXPECT_EQ(entries(), closed);
}

TEST_F(InPlaceClosingTest, AVolumeThatNobodyHasSeenClosedIsNotCalledClosed) {
    fs::create_directory(folder);
    tools.play("hdiutil", "detach",
               "echo \"detach failed - the volume's server ended unexpectedly\" >&2; exit 1");
    EXPECT_EQ(failureKind([&] { deactivate(); }), Case::detachFailed);
    recover();
    EXPECT_EQ(entries(), closed);
}

// Recovering

TEST_F(InPlaceClosingTest, RecoveringChangesNothingWhileTheVolumeIsThere) {
    fs::create_directory(folder);
    writeFile(place / ".hidden", "Docs.quillvane\n");
    const FuseMount mount(folder, item);
    SKIP_UNLESS(mount);
    recover();
    EXPECT_EQ(readFile(place / ".hidden"), "Docs.quillvane\n");
    EXPECT_TRUE(VaultEngine::isMounted(folder));
}

TEST_F(InPlaceClosingTest, RecoveringTakesADeadVolumeAway) {
    fs::create_directory(folder);
    writeFile(place / ".hidden", "a\nDocs.quillvane\nb\n");
    const DeadFuseMount dead(folder, item);
    SKIP_UNLESS(dead);
    recover();
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder)));
    EXPECT_EQ(readFile(place / ".hidden"), "a\nb\n");
}

TEST_F(InPlaceClosingTest, RecoveringShowsTheItemWhenTheVolumeIsGone) {
    fs::create_directory(folder);
    writeFile(place / ".hidden", "Docs.quillvane\n");
    recover();
    EXPECT_EQ(entries(), closed);
    recover();
    EXPECT_EQ(entries(), closed) << "twice is once";
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InPlaceClosingTest, RecoveringRemovesNothingButAnEmptyFolder) {
    fs::create_directories(folder / "inner");
    writeFile(place / ".hidden", "Docs.quillvane\n");
    recover();
    EXPECT_TRUE(fs::is_directory(folder / "inner"));
    EXPECT_FALSE(VaultEngine::isHidden(item));
    fs::remove_all(folder);
    writeFile(folder, "");
    recover();
    EXPECT_TRUE(fs::is_regular_file(folder));
    fs::remove(folder);
    fs::create_directory(place / "empty");
    fs::create_directory_symlink("empty", folder);
    recover();
    EXPECT_TRUE(fs::is_symlink(folder));
    EXPECT_TRUE(fs::is_directory(place / "empty"));
}

TEST_F(InPlaceClosingTest, RecoveringDoesWithoutItemAndDirectory) {
    writeFile(place / ".hidden", "Docs.quillvane\n");
    fs::remove(item);
    recover();
    EXPECT_FALSE(fs::exists(place / ".hidden")) << "a line for nothing";
    VaultEngine::recoverIfOrphaned(place / "gone/Docs.quillvane", place / "gone/Docs");
    VaultEngine::recoverIfOrphaned("", "");
    EXPECT_EQ(entries(), std::set<std::string>{".Docs.quillvane.qvkeys"});
}

TEST_F(InPlaceClosingTest, KnowsWhatIsHidden) {
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(VaultEngine::isHidden(place / "missing"));
    writeFile(place / ".hidden", "Docs.quillvane");
    EXPECT_TRUE(VaultEngine::isHidden(item));
    EXPECT_TRUE(VaultEngine::isHidden(item / ""));
    EXPECT_FALSE(VaultEngine::isHidden(folder));
}

} // namespace
