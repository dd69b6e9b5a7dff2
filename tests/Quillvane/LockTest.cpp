#include "Quillvane/VaultKeys.h"
#include "tests/Quillvane/LockFixture.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using LockTest = LockFixture;
using Names = std::vector<std::string>;

TEST_F(LockTest, ReplacesTheFolderByItemAndKeyFile) {
    const auto result = lock();
    EXPECT_EQ(result.container, target);
    EXPECT_EQ(names(), (Names{".My Docs.quillvane.qvkeys", "My Docs.quillvane"}));
    EXPECT_EQ(readFile(target), "image");
    EXPECT_EQ(readFile(tools.mountPoint() + "/inner/deep"), "deeper");
    EXPECT_EQ(readFile(tools.mountPoint() + "/.hidden file"), "more");
}

TEST_F(LockTest, PasswordRecoveryKeyAndImagePassphraseAreOneKey) {
    const auto result = lock();
    const std::string key = keyGivenToTool();
    EXPECT_EQ(key.size(), 20U);
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(keyFile), "pässword"), key);
    EXPECT_EQ(VaultKeys::fromRecoveryKey(result.recoveryKey).text(), key);
    EXPECT_THAT(std::string(result.recoveryKey.text()),
                testing::MatchesRegex("[A-Z2-7]{4}(-[A-Z2-7]{4}){7}"));
}

TEST_F(LockTest, CallsTheToolsExactlySo) {
    lock();
    const std::string image = workingImage();
    const std::string name = workingImage().filename();
    EXPECT_THAT(name, testing::MatchesRegex("\\.Quillvane-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-"
                                            "[89AB][0-9A-F]{3}-[0-9A-F]{12}\\.sparseimage"));
    EXPECT_EQ(workingImage().parent_path(), parent.path());
    const auto passphrase = tools.calls().at(0).standardInput;
    const std::vector<RecordingTools::Call> expected{
        {"hdiutil",
         {"create", "-size", "200m", "-encryption", "AES-256", "-stdinpass", "-volname", "My Docs",
          "-fs", "APFS", "-type", "SPARSE", image},
         passphrase},
        {"hdiutil",
         {"attach", "-stdinpass", "-plist", "-owners", "on", "-nobrowse", image},
         passphrase},
        {"ditto", {docs.string(), tools.mountPoint()}, std::nullopt},
        {"hdiutil", {"detach", "/dev/disk4"}, std::nullopt}};
    EXPECT_EQ(tools.calls(), expected);
}

TEST_F(LockTest, PassesTheOtherFormatOn) {
    lock(docs, "p", "p", Filesystem::macOSExtendedJournaled);
    EXPECT_EQ(tools.calls().at(0).arguments.at(9), "JHFS+");
}

TEST_F(LockTest, EveryReportTellsWhetherItCanStillBeCancelled) {
    lock();
    for (const Progress& report : reports)
        EXPECT_EQ(report.cancellable, report.fraction < 0.93) << report.message;
}

TEST_F(LockTest, ReportsEveryStep) {
    lock();
    std::vector<std::pair<double, std::string>> steps;
    for (const Progress& report : reports) {
        ASSERT_TRUE(report.fraction.has_value());
        if (!report.message.starts_with("Copying contents… "))
            steps.emplace_back(*report.fraction, report.message);
    }
    // The bar stays where the copy had brought it if that is beyond a step's own place.
    EXPECT_THAT(steps,
                testing::ElementsAre(testing::Pair(0.02, "Checking the folder…"),
                                     testing::Pair(0.05, "Calculating size…"),
                                     testing::Pair(0.15, "Creating the encrypted vault (AES-256)…"),
                                     testing::Pair(0.30, "Mounting the vault…"),
                                     testing::Pair(0.30, "Copying contents into the vault…"),
                                     testing::Pair(0.82, "Verifying your data is safe…"),
                                     testing::Pair(0.88, "Ejecting the vault…"),
                                     testing::Pair(0.93, "Deleting the original folder…"),
                                     testing::Pair(0.97, "Finalizing the encrypted item…"),
                                     testing::Pair(1.0, "Done. Your folder is now protected.")));
}

TEST_F(LockTest, CopyReportsStayInTheirRangeAndNeverGoBack) {
    tools.play("ditto", "", "sleep 1; cp -a \"$1/.\" \"$2\"");
    lock();
    double highest = 0;
    int copyReports = 0;
    for (const Progress& report : reports) {
        EXPECT_GE(*report.fraction, highest);
        highest = *report.fraction;
        if (!report.message.starts_with("Copying contents… ")) continue;
        ++copyReports;
        EXPECT_GE(highest, 0.30);
        EXPECT_LE(highest, 0.30 + 0.5 * 0.98);
        EXPECT_THAT(report.message, testing::MatchesRegex("Copying contents… [0-9]+%"));
    }
    EXPECT_GE(copyReports, 2);
}

TEST_F(LockTest, TakesAnySpellingOfThePath) {
    EXPECT_EQ(lock(docs / "", "p", "p").container, target);
}

TEST_F(LockTest, TakesRelativePaths) {
    const fs::path former = fs::current_path();
    fs::current_path(parent.path());
    fs::create_directory("x");
    const auto result = lock("x/.././My Docs/", "p", "p");
    fs::current_path(former);
    EXPECT_EQ(result.container, target);
    EXPECT_EQ(tools.calls().at(2).arguments.at(0), docs.string());
}

TEST_F(LockTest, SizesTheImage) {
    // Nothing but sizes matters here, so the image is never made.
    tools.play("hdiutil", "create", "exit 1");
    const auto sizeFor = [this](std::uintmax_t bytes) {
        fs::resize_file(docs / "file", bytes);
        lockError();
        return tools.calls().back().arguments.at(2);
    };
    fs::remove_all(docs / "inner");
    fs::remove(docs / ".hidden file");
    constexpr std::uintmax_t mebibyte = 1048576;
    EXPECT_EQ(sizeFor(0), "200m");
    EXPECT_EQ(sizeFor(72 * mebibyte), "200m");
    EXPECT_EQ(sizeFor(72 * mebibyte + 1), "201m");
    EXPECT_EQ(sizeFor(1280 * mebibyte), "1408m");
    if (VaultEngine::availableCapacity(parent.path()) < 10'804'527'104)
        GTEST_SKIP() << "too little space for the large folder";
    EXPECT_EQ(sizeFor(10'737'418'240), "11264m");
}

TEST_F(LockTest, AnEmptyFolderIsProtectedToo) {
    fs::remove_all(docs);
    fs::create_directory(docs);
    lock();
    EXPECT_EQ(tools.calls().at(0).arguments.at(2), "200m");
    EXPECT_TRUE(fs::exists(target));
}

TEST_F(LockTest, SystemFilesNeedNotArrive) {
    fs::remove_all(docs);
    fs::create_directory(docs);
    writeFile(docs / ".DS_Store", "x");
    tools.play("ditto", "", "true");
    lock();
    EXPECT_FALSE(fs::exists(docs));
}

TEST_F(LockTest, WhatComesAtTheLastMomentStays) {
    actions["Deleting the original folder…"] = [this] {
        writeFile(docs / "inner/late", "new");
        writeFile(docs / "file", "saved");
    };
    const auto result = lock();
    EXPECT_EQ(readFile(docs / "inner/late"), "new");
    EXPECT_EQ(readFile(docs / "file"), "saved");
    EXPECT_FALSE(fs::exists(docs / "inner/deep"));
    EXPECT_FALSE(fs::exists(docs / ".hidden file"));
    EXPECT_EQ(readFile(target), "image");
    EXPECT_THAT(result.leftBehind,
                testing::MatchesRegex("Not deleted, because it was added or changed at the last "
                                      "moment: .*. The protected item may lack its last "
                                      "changes."));
    EXPECT_THAT(result.leftBehind, testing::HasSubstr("\"My Docs/file\""));
    EXPECT_THAT(result.leftBehind, testing::HasSubstr("\"My Docs/inner/late\""));
}

TEST_F(LockTest, NothingIsSaidWhenNothingStays) {
    EXPECT_EQ(lock().leftBehind, "");
}

TEST_F(LockTest, WhatAppearsAtTheTargetMeanwhileGivesWay) {
    actions["Finalizing the encrypted item…"] = [this] {
        fs::create_directory(target);
        writeFile(target / "file", "x");
    };
    lock();
    EXPECT_EQ(readFile(target), "image");
    EXPECT_EQ(names().size(), 2U);
}

TEST_F(LockTest, TheKeyFileOfAnItemThatWasMovedAwayIsKept) {
    const std::string former = KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode();
    writeFile(keyFile, former);
    EXPECT_THAT(lock().leftBehind, testing::EndsWith("\".My Docs.quillvane.qvkeys.old\"."));
    EXPECT_EQ(readFile(keyFile.string() + ".old"), former);
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(keyFile), "pässword"), keyGivenToTool());
}

TEST_F(LockTest, AndSoIsThatOfTheItemBefore) {
    writeFile(keyFile, KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode());
    writeFile(keyFile.string() + ".old", "older");
    EXPECT_THAT(lock().leftBehind, testing::EndsWith("\".My Docs.quillvane.qvkeys.old2\"."));
    EXPECT_EQ(readFile(keyFile.string() + ".old"), "older");
}

TEST_F(LockTest, WhatIsNoKeyFileGivesWay) {
    writeFile(keyFile, "garbage");
    EXPECT_EQ(lock().leftBehind, "");
    EXPECT_EQ(names(), (Names{".My Docs.quillvane.qvkeys", "My Docs.quillvane"}));
}

TEST_F(LockTest, ItsNoteTellsHowFarItCame) {
    const auto note = [this] { return readFile(tools.notes().at(0)); };
    actions["Creating the encrypted vault"] = [&] {
        EXPECT_THAT(note(), testing::HasSubstr("\"folder\":\"My%20Docs\""));
    };
    actions["Ejecting the vault…"] = [&] {
        EXPECT_THAT(note(), testing::Not(testing::HasSubstr("deleting")));
    };
    actions["Deleting the original folder…"] = [&] {
        EXPECT_THAT(note(), testing::HasSubstr("\ndeleting "));
    };
    const auto result = lock();
    EXPECT_THAT(note(), testing::HasSubstr("\ndone "));
    VaultEngine::recoveryKeyShown(result);
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(LockTest, AnyMomentAfterTheOriginalWentHasAKeyFileBesideTheImage) {
    actions["Finalizing the encrypted item…"] = [this] {
        EXPECT_FALSE(fs::exists(docs));
        EXPECT_EQ(KeyFileReader::vaultKey(readFile(workingKeyFile()), "pässword"),
                  keyGivenToTool());
    };
    lock();
    EXPECT_FALSE(fs::exists(workingKeyFile()));
}

} // namespace
