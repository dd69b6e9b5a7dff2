#include "Quillvane/FileDescriptor.h"
#include "Quillvane/InterruptedWork.h"
#include "Quillvane/KeyStore.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/OperationNote.h"
#include "Quillvane/RecoveryError.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "Quillvane/VaultKeys.h"
#include "tests/support/RecordingTools.h"

#include <gmock/gmock.h>

#include <chrono>
#include <fcntl.h>
#include <map>
#include <memory>

namespace {

namespace fs = std::filesystem;
using Case = VaultError::Case;
using testing::HasSubstr;
using testing::Not;

/// An item "My Docs.quillvane" whose volume, played by a folder, holds files.
class RemoveTest : public testing::Test {
protected:
    RemoveTest() {
        writeFile(item, "image");
        KeyStore::write(VaultKeys::seal(vaultKey, Secret(std::string_view("right"))), item);
        keyFileText = readFile(KeyStore::path(item));
        fs::create_directory(volume / "inner");
        writeFile(volume / "file", "contents");
        writeFile(volume / "inner/deep", "deeper");
    }

    fs::path remove(const std::string& password = "right") {
        return VaultEngine::removePassword(
            item, Credential::password(Secret(std::string_view(password))),
            [this](const Progress& report) {
                reports.push_back(report);
                for (const auto& [message, action] : actions)
                    if (report.message.starts_with(message)) action();
            },
            cancellation.get());
    }
    VaultError removeError() {
        try {
            remove();
        } catch (const VaultError& error) {
            return error;
        }
        throw std::logic_error("the protection was removed");
    }
    void expectUntouched() const {
        EXPECT_EQ(readFile(item), "image");
        EXPECT_EQ(readFile(KeyStore::path(item)), keyFileText);
        EXPECT_FALSE(fs::exists(fs::symlink_status(docs)));
        EXPECT_TRUE(tools.notes().empty());
    }

    RecordingTools tools;
    TemporaryFolder parent;
    fs::path item = parent / "My Docs.quillvane";
    fs::path docs = parent / "My Docs";
    fs::path volume = tools.mountPoint();
    Secret vaultKey = Secret(std::string_view("twenty bytes of key!"));
    std::string keyFileText;
    std::vector<Progress> reports;
    std::map<std::string, std::function<void()>> actions;
    std::unique_ptr<Cancellation> cancellation = std::make_unique<Cancellation>();
};

TEST_F(RemoveTest, AnItemThatIsALinkIsRefused) {
    const TemporaryFolder elsewhere;
    const fs::path other = elsewhere / "Other.quillvane";
    fs::rename(item, other);
    fs::create_symlink(other, item);
    const VaultError error = removeError();
    EXPECT_EQ(error.kind(), Case::extractFailed);
    EXPECT_EQ(error.errorDescription(),
              "Couldn't extract the contents. The encrypted vault was left untouched.\n"
              "\"My Docs.quillvane\" is a link. Remove the protection of the item itself: " +
                  fs::canonical(other).string());
    EXPECT_TRUE(fs::is_symlink(item));
    EXPECT_EQ(readFile(other), "image");
    EXPECT_FALSE(fs::exists(docs));
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(RemoveTest, AFolderThatIsGoneAgainKeepsTheItem) {
    const fs::path elsewhere = tools.folder() / "elsewhere";
    actions["Ejecting the item…"] = [&] { fs::rename(docs, elsewhere); };
    const VaultError error = removeError();
    EXPECT_EQ(error.kind(), Case::extractFailed);
    EXPECT_THAT(error.errorDescription(), testing::HasSubstr("\"My Docs\" isn't there any more"));
    EXPECT_EQ(readFile(item), "image");
    EXPECT_EQ(readFile(KeyStore::path(item)), keyFileText);
}

TEST_F(RemoveTest, AnItemThatBecomesALinkMeanwhileIsNotDeleted) {
    const TemporaryFolder elsewhere;
    writeFile(elsewhere / "Other.quillvane", "another");
    actions["Ejecting the item…"] = [&] {
        fs::remove(item);
        fs::create_symlink(elsewhere / "Other.quillvane", item);
    };
    EXPECT_EQ(removeError().kind(), Case::extractFailed);
    EXPECT_EQ(readFile(item), "another");
    EXPECT_TRUE(fs::is_symlink(item));
}

TEST_F(RemoveTest, GivesTheFolderBackAndDeletesTheItem) {
    EXPECT_EQ(remove(), docs);
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(readFile(docs / "inner/deep"), "deeper");
    EXPECT_EQ(std::distance(fs::directory_iterator(parent.path()), fs::directory_iterator()), 1);
}

TEST_F(RemoveTest, CallsTheToolsExactlySo) {
    remove();
    const std::vector<RecordingTools::Call> expected{
        {"hdiutil",
         {"attach", "-stdinpass", "-plist", "-owners", "on", "-nobrowse", item.string()},
         "dHdlbnR5IGJ5dGVzIG9mIGtleSE=\n"},
        {"ditto", {volume.string(), docs.string()}, std::nullopt},
        {"hdiutil", {"detach", "/dev/disk4"}, std::nullopt}};
    EXPECT_EQ(tools.calls(), expected);
}

TEST_F(RemoveTest, ReportsEveryStepAndNeverGoesBack) {
    tools.play("ditto", "", "sleep 0.6; cp -a \"$1/.\" \"$2\"");
    remove();
    std::vector<std::pair<double, std::string>> steps;
    double highest = 0;
    int copyReports = 0;
    for (const Progress& report : reports) {
        ASSERT_TRUE(report.fraction.has_value());
        EXPECT_GE(*report.fraction, highest);
        highest = *report.fraction;
        if (report.message.starts_with("Extracting contents… ")) {
            ++copyReports;
            EXPECT_TRUE(highest >= 0.3 && highest <= 0.8) << highest;
            EXPECT_THAT(report.message, testing::MatchesRegex("Extracting contents… [0-9]+%"));
        } else {
            steps.emplace_back(highest, report.message);
        }
    }
    EXPECT_GE(copyReports, 2);
    EXPECT_THAT(steps,
                testing::ElementsAre(testing::Pair(0.02, "Checking the item…"),
                                     testing::Pair(0.15, "Opening the item…"),
                                     testing::Pair(0.25, "Creating the folder"),
                                     testing::Pair(0.3, "Extracting contents…"),
                                     testing::Pair(0.82, "Verifying extracted data…"),
                                     testing::Pair(0.88, "Ejecting the item…"),
                                     testing::Pair(0.95, "Deleting the encrypted item…"),
                                     testing::Pair(1.0, "Done. It's a normal folder again.")));
}

TEST_F(RemoveTest, RecoveryKeyNeedsNoKeyFile) {
    KeyStore::remove(item);
    VaultEngine::removePassword(
        item, Credential::recoveryKey(Secret(std::string_view("OR3WK3TUPEQGE6LUMVZSA33GEBVWK6JB"))),
        [](const Progress&) {});
    EXPECT_TRUE(fs::exists(docs / "file"));
}

TEST_F(RemoveTest, AMissingItemIsTold) {
    fs::remove(item);
    EXPECT_EQ(removeError().kind(), Case::sourceMissing);
    EXPECT_EQ(reports.size(), 1U);
}

TEST_F(RemoveTest, AnythingAtTheFoldersPlaceStopsItBeforeAnyKeyWork) {
    const std::function<void()> obstacles[] = {[this] { fs::create_directory(docs); },
                                               [this] { writeFile(docs, ""); },
                                               [this] { fs::create_symlink("missing", docs); }};
    for (const auto& obstacle : obstacles) {
        obstacle();
        EXPECT_EQ(removeError().errorDescription(),
                  "A folder named \"My Docs\" already exists here. Rename or remove it before "
                  "removing the password.");
        fs::remove(docs);
    }
    EXPECT_TRUE(tools.calls().empty());
    expectUntouched();
}

TEST_F(RemoveTest, AWrongPasswordStopsItBeforeAnyTool) {
    EXPECT_THROW(remove("wrong"), RecoveryError);
    EXPECT_TRUE(tools.calls().empty());
    expectUntouched();
}

TEST_F(RemoveTest, ARefusedPassphraseMakesNoFolder) {
    tools.play("hdiutil", "attach", "echo Authentication error >&2; exit 1");
    EXPECT_EQ(removeError().kind(), Case::wrongPassword);
    EXPECT_EQ(tools.calls().size(), 1U);
    expectUntouched();
}

TEST_F(RemoveTest, CopyFailureLeavesNoFolderAndEjects) {
    tools.play("ditto", "",
               "cp -a \"$1/.\" \"$2\"; chmod 555 \"$2/inner\"; echo 'bad ' >&2; exit 1");
    EXPECT_EQ(removeError().errorDescription(),
              "Couldn't extract the contents. The encrypted vault was left untouched.\nbad");
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    expectUntouched();
}

TEST_F(RemoveTest, ACopyToolThatCannotBeLaunchedIsTriedOnceMore) {
    tools.uninstall("ditto");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(removeError().errorDescription(),
              "Couldn't extract the contents. The encrypted vault was left untouched.\n"
              "Couldn't launch ditto. No such file or directory");
    // Each of the two runs tries its launch twice.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(240));
    expectUntouched();
}

TEST_F(RemoveTest, WhatDidNotArriveIsNamed) {
    writeFile(volume / ".DS_Store", "");
    tools.play("ditto", "", "cp -a \"$1/.\" \"$2\"; rm \"$2/file\" \"$2/.DS_Store\"");
    EXPECT_EQ(removeError().errorDescription(),
              "Data verification failed. Your original folder was left untouched.\n"
              "Missing: \"file\".");
    expectUntouched();
}

TEST_F(RemoveTest, AFolderThatAppearsMeanwhileIsNotTouched) {
    actions["Creating the folder"] = [this] {
        fs::create_directory(docs);
        writeFile(docs / "theirs", "x");
    };
    EXPECT_EQ(removeError().errorDescription(),
              "Couldn't extract the contents. The encrypted vault was left untouched.\n"
              "File exists");
    EXPECT_EQ(readFile(docs / "theirs"), "x");
    EXPECT_EQ(readFile(item), "image");
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
}

TEST_F(RemoveTest, CleanUpKeepsWhatIsNotInTheItem) {
    tools.play("ditto", "", R"(
cp -a "$1/." "$2"
echo mine > "$2/added"
echo mine > "$2/file"
exit 1)");
    EXPECT_EQ(removeError().kind(), Case::extractFailed);
    EXPECT_EQ(readFile(docs / "added"), "mine\n");
    EXPECT_EQ(readFile(docs / "file"), "mine\n");
    EXPECT_FALSE(fs::exists(docs / "inner"));
    EXPECT_EQ(readFile(item), "image");
    EXPECT_EQ(InterruptedWork::findIn(parent.path()).at(0).state,
              InterruptedWork::State::incomplete);
}

TEST_F(RemoveTest, CleanUpTakesFilesThatWereCutShort) {
    tools.play("ditto", "", R"(
cp -a "$1/." "$2"
printf con > "$2/file"
exit 1)");
    EXPECT_EQ(removeError().kind(), Case::extractFailed);
    expectUntouched();
}

TEST_F(RemoveTest, NobodyElseLooksIntoTheFolderWhileItIsFilled) {
    actions["Extracting contents…"] = [this] {
        EXPECT_EQ(fs::status(docs).permissions(), fs::perms::owner_all);
    };
    remove();
}

TEST_F(RemoveTest, CleanUpGoesOnWhenTheVolumeStays) {
    tools.play("ditto", "", "exit 1");
    tools.play("hdiutil", "detach", "exit 1");
    EXPECT_EQ(removeError().kind(), Case::extractFailed);
    expectUntouched();
}

TEST_F(RemoveTest, DetachFailureKeepsBoth) {
    tools.play("hdiutil", "detach", "echo stuck >&2; exit 1");
    EXPECT_EQ(removeError().errorDescription(), "Couldn't eject the volume.\nstuck");
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(readFile(item), "image");
    EXPECT_EQ(readFile(KeyStore::path(item)), keyFileText);
}

TEST_F(RemoveTest, AnItemThatCannotBeDeletedKeepsBoth) {
    actions["Deleting the encrypted item…"] = [this] { fs::rename(item, parent / "moved"); };
    EXPECT_EQ(removeError().errorDescription(),
              "Your data is safe in the vault (No such file or directory), but the original "
              "folder \"" +
                  item.string() + "\" couldn't be deleted. Delete it manually.");
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(readFile(KeyStore::path(item)), keyFileText);
}

TEST_F(RemoveTest, ItsNoteTellsHowFarItCame) {
    const auto note = [this] { return readFile(tools.notes().at(0)); };
    actions["Creating the folder"] = [&] { EXPECT_THAT(note(), Not(HasSubstr("made"))); };
    actions["Extracting contents…"] = [&] { EXPECT_THAT(note(), HasSubstr("\nmade ")); };
    actions["Ejecting the item…"] = [&] { EXPECT_THAT(note(), Not(HasSubstr("copied"))); };
    actions["Deleting the encrypted item…"] = [&] { EXPECT_THAT(note(), HasSubstr("\ncopied ")); };
    remove();
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(RemoveTest, AFailureThatLeavesSomethingKeepsTheNote) {
    tools.play("hdiutil", "detach", "exit 1");
    EXPECT_EQ(removeError().kind(), Case::detachFailed);
    EXPECT_EQ(tools.notes().size(), 1U);
}

TEST_F(RemoveTest, WhatCannotBeNotedIsNotBegun) {
    writeFile(tools.stateDirectory(), "in the way");
    EXPECT_THROW(remove(), OperationNoteError);
    EXPECT_TRUE(tools.calls().empty());
    expectUntouched();
}

TEST_F(RemoveTest, ANewerItemPutInItsPlaceIsNotDeleted) {
    actions["Ejecting the item…"] = [this] {
        writeFile(parent / "newer", "newer image");
        fs::rename(parent / "newer", item);
    };
    EXPECT_EQ(removeError().errorDescription(),
              "Couldn't extract the contents. The encrypted vault was left untouched.\n"
              "\"My Docs.quillvane\" was exchanged for another file meanwhile. It stays, and so "
              "does the folder.");
    EXPECT_EQ(readFile(item), "newer image");
    EXPECT_EQ(readFile(KeyStore::path(item)), keyFileText);
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(RemoveTest, AnItemThatWasOpenedAgainIsNotDeleted) {
    FileDescriptor server;
    actions["Deleting the encrypted item…"] = [&] {
        server.reset(::open(item.c_str(), O_RDWR | O_CLOEXEC));
        struct flock range {};
        range.l_type = F_WRLCK;
        ASSERT_EQ(::fcntl(server.get(), F_OFD_SETLK, &range), 0);
    };
    EXPECT_EQ(removeError().errorDescription(),
              "Couldn't extract the contents. The encrypted vault was left untouched.\n"
              "\"My Docs.quillvane\" was opened again meanwhile. It stays, and so does the "
              "folder.");
    EXPECT_EQ(readFile(item), "image");
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(RemoveTest, CancellingAtAnyStepBeforeTheDeletionUndoesEverything) {
    for (const char* message :
         {"Checking the item…", "Opening the item…", "Creating the folder", "Extracting contents…",
          "Extracting contents… ", "Verifying extracted data…"}) {
        cancellation = std::make_unique<Cancellation>();
        actions = {{message, [this] { cancellation->request(); }}};
        EXPECT_THROW(remove(), OperationCancelled) << message;
        expectUntouched();
        EXPECT_EQ(readFile(volume / "file"), "contents");
    }
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
}

TEST_F(RemoveTest, CancellingEndsAHostileKeyDerivation) {
    auto record = KeyMetadata::decode(keyFileText);
    ASSERT_TRUE(record.has_value());
    record->iterations = 4294967295;
    KeyStore::write(*record, item);
    keyFileText = record->encode();
    actions["Opening the item…"] = [this] { cancellation->request(); };
    EXPECT_THROW(remove(), OperationCancelled);
    EXPECT_TRUE(tools.calls().empty());
    expectUntouched();
}

TEST_F(RemoveTest, CancellingEndsTheCopyAtOnce) {
    tools.play("ditto", "", "exec sleep 60");
    actions["Extracting contents… "] = [this] { cancellation->request(); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(remove(), OperationCancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    expectUntouched();
}

TEST_F(RemoveTest, CancellingTooLateIsRefused) {
    bool heard = true;
    actions["Ejecting the item…"] = [&] { heard = cancellation->request(); };
    remove();
    EXPECT_FALSE(fs::exists(item));
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_FALSE(heard);
}

TEST_F(RemoveTest, EveryReportTellsWhetherItCanStillBeCancelled) {
    remove();
    for (const Progress& report : reports)
        EXPECT_EQ(report.cancellable, report.fraction < 0.88) << report.message;
}

} // namespace
