#include "Quillvane/KeyMetadata.h"
#include "Quillvane/Platform.h"
#include "Quillvane/RecoveryError.h"
#include "Quillvane/VaultError.h"
#include "tests/Quillvane/InterruptedFixture.h"
#include "tests/support/KeyFileReader.h"

namespace {

namespace fs = std::filesystem;
using InterruptedWork::Found;
using InterruptedWork::State;
using Operation = OperationNote::Operation;
using testing::HasSubstr;
using InterruptedEndingTest = InterruptedFixture;

TEST_F(InterruptedEndingTest, AnUnfinishedImageIsClearedAway) {
    for (const bool undone : {true, false}) {
        protectUntilCopying();
        EXPECT_EQ(found().state, State::unfinished);
        EXPECT_EQ(InterruptedWork::text(found()),
                  "Protecting \"Docs\" in " + parent.path().string() +
                      " was interrupted. The folder is as it was; nothing is protected yet.");
        EXPECT_FALSE(InterruptedWork::finishNeedsSecret(found()));
        undone ? undo() : finish();
        expectOnlyFolder();
    }
}

TEST_F(InterruptedEndingTest, ACopiedFolderIsKeptOrProtected) {
    protectUntilCopied();
    EXPECT_EQ(found().state, State::copied);
    EXPECT_TRUE(InterruptedWork::undoNeedsSecret(found()));
    EXPECT_THROW(undo(password("wrong")), RecoveryError);
    undo(password());
    expectOnlyFolder();
    protectUntilCopied();
    EXPECT_TRUE(InterruptedWork::finishNeedsSecret(found()));
    EXPECT_EQ(finish(password()).result, item);
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, AFolderThatChangedSinceIsNotDeleted) {
    protectUntilCopied();
    writeFile(docs / "inner/new", "x");
    EXPECT_EQ(refusal([this] { finish(password()); }),
              "\"Docs\" holds what is not so in the encrypted copy: \"inner/new\". Move it to "
              "another folder, then finish; or undo this, which keeps the folder, and protect it "
              "again.");
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(found().state, State::copied);
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
}

TEST_F(InterruptedEndingTest, AnImageIsNotGivenUpForAFolderThatLacksSomething) {
    protectUntilCopied();
    writeFile(docs / "file", "what I write in it is mine");
    fs::remove(docs / "inner/deep");
    EXPECT_EQ(
        refusal([this] { undo(password()); }),
        "\"Docs\" no longer has \"inner/deep\". Finish this, which keeps the encrypted copy.");
    EXPECT_EQ(
        refusal([this] { InterruptedWork::makeWayToProtect(docs, *password()); }),
        "\"Docs\" no longer has \"inner/deep\". Finish this, which keeps the encrypted copy.");
    EXPECT_THAT(refusal([this] { InterruptedWork::makeWayToProtect(docs, *password("another")); }),
                HasSubstr("The folder was whole then, and so was its encrypted copy."));
    EXPECT_EQ(readFile(image), "image");
    writeFile(docs / "inner/deep", "");
    undo(password());
    EXPECT_EQ(readFile(docs / "file"), "what I write in it is mine");
    EXPECT_THAT(names(), testing::ElementsAre("Docs"));
}

TEST_F(InterruptedEndingTest, AnImageIsNotGivenUpForAFileThatAPowerFailureHasCost) {
    for (const int days : {0, -1}) { // what was written last is gone, or all that was
        protectUntilCopied();
        const auto time = fs::last_write_time(volume / "file") + std::chrono::days(days);
        const std::string contents = days == 0 ? std::string(8, '\0') : "old contents";
        writeFile(docs / "file", contents);
        fs::last_write_time(docs / "file", time);
        const std::string lacks = "\"Docs\" no longer has \"file\".";
        EXPECT_THAT(refusal([this] { undo(password()); }), HasSubstr(lacks));
        EXPECT_THAT(refusal([this] { InterruptedWork::makeWayToProtect(docs, *password()); }),
                    HasSubstr(lacks));
        EXPECT_EQ(readFile(image), "image");
        writeFile(docs / "file", "contents"); // written anew, by the user
        undo(password());
    }
}

TEST_F(InterruptedEndingTest, AnImageThatNothingElseIsLeftOfStays) {
    protectUntilCopying();
    fs::rename(docs, parent / "elsewhere");
    EXPECT_EQ(found().state, State::unfinished);
    const std::string stays = "\"Docs\" is no longer there, so the encrypted copy stays: ";
    EXPECT_THAT(refusal([this] { finish(); }), HasSubstr(stays));
    EXPECT_THAT(refusal([this] { undo(); }), HasSubstr(stays));
    EXPECT_EQ(readFile(image), "image");
    fs::rename(parent / "elsewhere", docs);
    writeFile(KeyStore::path(image), "damaged");
    EXPECT_THAT(refusal([this] { undo(); }), HasSubstr("has a key file that cannot be read"));
    EXPECT_EQ(readFile(image), "image");
}

TEST_F(InterruptedEndingTest, AnImageWhoseFolderWasDeletedIsKept) {
    protectUntilCopied();
    fs::remove_all(docs);
    EXPECT_EQ(found().state, State::unnamed);
    EXPECT_EQ(finish().result, item);
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, DeletingIsNotCancelled) {
    protectUntilCopied();
    Cancellation cancellation;
    bool heard = true;
    bool cancellable = true;
    InterruptedWork::finish(
        found(), password(),
        [&](const Progress& progress) {
            if (!progress.message.starts_with("Deleting")) return;
            cancellable = progress.cancellable;
            heard = cancellation.request();
        },
        &cancellation);
    EXPECT_FALSE(heard);
    EXPECT_FALSE(cancellable);
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, WhatFollowsAClearingAwayCanBeCancelled) {
    Cancellation cancellation;
    protectUntilCopied();
    InterruptedWork::makeWayToProtect(docs, *password(), &cancellation);
    expectOnlyFolder();
    fs::remove(docs / "file");
    removeUntilMade(/*copied=*/false);
    InterruptedWork::makeWayToRemove(item, *password(), &cancellation);
    expectOnlyItem();
    EXPECT_TRUE(cancellation.request());
}

TEST_F(InterruptedEndingTest, AWrongPasswordChangesNothing) {
    protectUntilDeleting();
    EXPECT_ANY_THROW(finish(password("wrong")));
    EXPECT_ANY_THROW(finish());
    EXPECT_EQ(found().state, State::deleting);
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(InterruptedEndingTest, ADeletionThatHadBegunIsFinished) {
    protectUntilDeleting();
    fs::remove(docs / "file");
    EXPECT_EQ(found().state, State::deleting);
    EXPECT_EQ(finish(password()).result, item);
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, WhatCameSinceTheDeletionBeganSurvives) {
    protectUntilDeleting();
    writeFile(docs / "inner/new", "x");
    EXPECT_EQ(refusal([this] { finish(password()); }),
              "\"Docs\" holds what is not so in the encrypted copy: \"inner/new\". Move it to "
              "another folder, then finish.");
    EXPECT_EQ(readFile(docs / "inner/new"), "x");
    EXPECT_EQ(readFile(image), "image");
    fs::rename(docs / "inner/new", docs.parent_path() / "new");
    finish(password());
    fs::remove(docs.parent_path() / "new");
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, ADeletionThatHadBegunIsUndone) {
    protectUntilDeleting();
    fs::remove(docs / "file");
    EXPECT_TRUE(InterruptedWork::undoNeedsSecret(found()));
    EXPECT_EQ(undo(password()).result, docs);
    expectOnlyFolder();
}

TEST_F(InterruptedEndingTest, AnImageWithoutItsNameGetsIt) {
    protectUntilDeleted();
    EXPECT_EQ(found().state, State::unnamed);
    EXPECT_FALSE(InterruptedWork::finishNeedsSecret(found()));
    EXPECT_EQ(finish().result, item);
    expectOnlyItem();
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InterruptedEndingTest, TheKeyFileOfAnItemThatWasMovedAwayIsKept) {
    protectUntilDeleted();
    const std::string former = KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode();
    writeFile(KeyStore::path(item), former);
    const std::string kept = KeyStore::path(item).string() + ".old";
    EXPECT_THAT(finish().message, HasSubstr("\".Docs.quillvane.qvkeys.old\""));
    EXPECT_EQ(readFile(kept), former);
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(KeyStore::path(item)), "right"), vaultKey.text());
}

TEST_F(InterruptedEndingTest, AnotherFolderInThePlaceOfTheDeletedOneStays) {
    const fs::path other = parent / "other"; // made beside it, and so has another inode
    do {
        fs::remove(other);
        fs::create_directory(other);
    } while (Platform::birthTime(other) != 0 && // the clock of the disk goes in steps
             Platform::birthTime(other) == Platform::birthTime(docs));
    writeFile(other / "deep", "deeper");
    protectUntilDeleted();
    fs::rename(other, docs);
    EXPECT_EQ(found().state, State::unnamed);
    finish();
    EXPECT_EQ(readFile(docs / "deep"), "deeper");
    EXPECT_EQ(readFile(item), "image");
}

TEST_F(InterruptedEndingTest, AWrongPasswordLeavesAnImageWithoutItsNameToBeUndone) {
    protectUntilDeleted();
    EXPECT_THROW(undo(password("wrong")), RecoveryError);
    EXPECT_EQ(found().state, State::unnamed);
    undo(password());
    EXPECT_EQ(readFile(docs / "inner/deep"), "deeper");
}

TEST_F(InterruptedEndingTest, ANameThatIsTakenIsNotTakenAway) {
    protectUntilDeleted();
    writeFile(item, "theirs");
    EXPECT_THROW(finish(), VaultError);
    EXPECT_EQ(readFile(item), "theirs");
    EXPECT_EQ(readFile(image), "image");
    EXPECT_EQ(found().state, State::unnamed);
}

TEST_F(InterruptedEndingTest, AnImageWithoutAnyKeyFileIsNotNamed) {
    protectUntilDeleted();
    KeyStore::remove(image);
    EXPECT_THAT(refusal([this] { finish(); }), HasSubstr("key file of the encrypted copy"));
    writeKeyFile(item); // the one that was written ahead serves as well
    finish();
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, AnImageWithItsNameLosesItsWorkingKeyFile) {
    protectUntilNamed();
    EXPECT_EQ(found().state, State::named);
    EXPECT_THAT(InterruptedWork::text(found()), HasSubstr("recovery key may not have been shown"));
    finish();
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, AnotherKeyFileOfAnImageWithItsNameDoesNotCostItItsOwn) {
    protectUntilDeleted();
    const std::string own = readFile(KeyStore::path(image));
    // Of an item that was moved away; the image was given its name by hand.
    writeFile(KeyStore::path(item), KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode());
    fs::rename(image, item);
    EXPECT_EQ(found().state, State::named);
    EXPECT_THAT(finish().message,
                HasSubstr("\"Docs.quillvane\" has another key file than the one that it was made "
                          "with, which is kept as \".Docs.quillvane.qvkeys.old\""));
    EXPECT_EQ(readFile(KeyStore::path(item).string() + ".old"), own);
    EXPECT_FALSE(fs::exists(KeyStore::path(image)));
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(InterruptedEndingTest, AChangedPasswordGivesTheFolderBack) {
    protectUntilNamed();
    KeyStore::write(VaultKeys::seal(vaultKey, Secret(std::string_view("new"))), item);
    EXPECT_EQ(undo(password("new")).result, docs);
    expectOnlyFolder();
}

TEST_F(InterruptedEndingTest, AKeyFileThatWasSetAsideBeforeTheInterruptionIsTold) {
    protectUntilNamed();
    writeFile(KeyStore::path(item).string() + ".old", "former");
    writeFile(KeyStore::path(item).string() + ".old2", "former");
    EXPECT_THAT(finish().message, HasSubstr("It is now \".Docs.quillvane.qvkeys.old2\"."));
}

TEST_F(InterruptedEndingTest, AnImageWithItsNameIsNotLeftWithoutAKeyFile) {
    protectUntilNamed();
    fs::remove(KeyStore::path(item));
    finish();
    expectOnlyItem();
    EXPECT_TRUE(KeyMetadata::decode(*KeyStore::read(item)));
}

TEST_F(InterruptedEndingTest, AnImageThatIsGoneIsToldUntilItIsForgotten) {
    protectUntilDeleting();
    fs::remove(image);
    EXPECT_EQ(found().state, State::imageMissing);
    undo();
    EXPECT_TRUE(tools.notes().empty());
    EXPECT_TRUE(fs::exists(KeyStore::path(image))) << "the image may be elsewhere";
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(InterruptedEndingTest, AFolderThatWasJustMadeGoes) {
    fs::remove_all(docs);
    writeFile(item, "image");
    writeKeyFile(item);
    begin(Operation::remove);
    fs::create_directory(docs); // and not yet noted
    EXPECT_EQ(found().state, State::incomplete);
    EXPECT_FALSE(InterruptedWork::undoNeedsSecret(found()));
    undo();
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, AnIncompleteFolderGoesButWhatIsNotInTheItem) {
    writeFile(docs / "file", "cont"); // cut short
    removeUntilMade(/*copied=*/false);
    EXPECT_EQ(found().state, State::incomplete);
    EXPECT_TRUE(InterruptedWork::undoNeedsSecret(found()));
    undo(password());
    expectOnlyItem();

    fs::create_directory(docs);
    writeFile(docs / "theirs", "x");
    removeUntilMade(/*copied=*/false);
    EXPECT_EQ(undo(password()).message,
              "\"Docs\" still holds what is not so in the item: \"theirs\".");
    EXPECT_EQ(readFile(docs / "theirs"), "x");
    EXPECT_EQ(readFile(item), "image");
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(InterruptedEndingTest, AnIncompleteFolderIsRestoredAnew) {
    fs::remove(docs / "file");
    removeUntilMade(/*copied=*/false);
    EXPECT_EQ(finish(password()).result, docs);
    expectOnlyFolder();
}

TEST_F(InterruptedEndingTest, ARestoredFolderLosesItsItem) {
    removeUntilMade(/*copied=*/true);
    EXPECT_EQ(found().state, State::restored);
    EXPECT_TRUE(InterruptedWork::finishNeedsSecret(found()));
    writeFile(docs / "new", "it may have been worked in");
    EXPECT_EQ(finish(password()).result, docs);
    fs::remove(docs / "new");
    expectOnlyFolder();
}

TEST_F(InterruptedEndingTest, AnItemThatWasReplacedByALinkStays) {
    removeUntilMade(/*copied=*/true);
    fs::rename(item, tools.folder() / "moved");
    fs::create_symlink(tools.folder() / "moved", item);
    EXPECT_THAT(refusal([this] { finish(password()); }), HasSubstr("is a link by now"));
    EXPECT_TRUE(fs::is_symlink(item));
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
    EXPECT_EQ(found().state, State::restored);
}

TEST_F(InterruptedEndingTest, ARestoredFolderIsGivenUpAgain) {
    removeUntilMade(/*copied=*/true);
    EXPECT_EQ(undo(password()).result, item);
    expectOnlyItem();
}

TEST_F(InterruptedEndingTest, AKeyFileGoesOnlyWhenAsked) {
    removeUntilMade(/*copied=*/true);
    fs::remove(item);
    EXPECT_EQ(found().state, State::keyFileLeft);
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
    undo();
    EXPECT_TRUE(tools.notes().empty());
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
    removeUntilMade(/*copied=*/true);
    fs::remove(item);
    finish();
    expectOnlyFolder();
}

TEST_F(InterruptedEndingTest, AnItemThatIsGoneFromAnIncompleteFolderIsTold) {
    removeUntilMade(/*copied=*/false);
    fs::rename(item, tools.folder() / "moved");
    EXPECT_EQ(found().state, State::itemMissing);
    EXPECT_THAT(InterruptedWork::text(found()), HasSubstr("may hold only a part"));
    finish();
    EXPECT_TRUE(tools.notes().empty());
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
}

TEST_F(InterruptedEndingTest, WhatChangedSinceItWasFoundIsNotEnded) {
    protectUntilCopying();
    const Found before = found();
    writeKeyFile(image);
    EXPECT_THAT(
        refusal([&] { InterruptedWork::undo(before, std::nullopt, [](const Progress&) {}); }),
        HasSubstr("Try again"));
    EXPECT_EQ(readFile(image), "image");
}

TEST_F(InterruptedEndingTest, ProtectingAgainClearsAwayOrRefuses) {
    protectUntilCopied();
    InterruptedWork::makeWayToProtect(docs, *password());
    expectOnlyFolder();
    protectUntilDeleting();
    EXPECT_THAT(refusal([this] { InterruptedWork::makeWayToProtect(docs, *password()); }),
                HasSubstr("while the original was being deleted"));
    EXPECT_EQ(readFile(image), "image");
    fs::rename(image, parent / "elsewhere");
    EXPECT_THAT(refusal([this] { InterruptedWork::makeWayToProtect(docs, *password()); }),
                HasSubstr("is no longer there"));
    fs::rename(parent / "elsewhere", image);
    InterruptedWork::makeWayToProtect(parent / "Other", *password());
    EXPECT_EQ(found().state, State::deleting);
}

TEST_F(InterruptedEndingTest, RemovingAgainClearsAwayOrFinishes) {
    fs::remove(docs / "file");
    removeUntilMade(/*copied=*/false);
    EXPECT_EQ(InterruptedWork::makeWayToRemove(item, *password()), std::nullopt);
    expectOnlyItem();
    fs::create_directory(docs);
    removeUntilMade(/*copied=*/true);
    EXPECT_THAT(refusal([this] { InterruptedWork::makeWayToRemove(item, *password()); }),
                HasSubstr("\"Docs.quillvane\" has what is not so in \"Docs\": "));
    EXPECT_EQ(readFile(item), "image");
    EXPECT_EQ(found().state, State::restored);
    copy(volume, docs);
    EXPECT_EQ(InterruptedWork::makeWayToRemove(item, *password()), docs);
    EXPECT_THAT(names(), testing::ElementsAre("Docs"));
}

} // namespace
