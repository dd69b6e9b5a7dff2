#include "Quillvane/InterruptedWork.h"
#include "Quillvane/KeyStore.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "Quillvane/VaultKeys.h"
#include "tests/support/RecordingTools.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using InterruptedWork::Found;
using InterruptedWork::Outcome;
using InterruptedWork::State;
using Operation = OperationNote::Operation;
using Step = OperationNote::Step;
using testing::ElementsAre;
using testing::HasSubstr;
using Names = std::vector<std::string>;

/// States as interrupted operations leave them, with a volume that a folder plays.
class InterruptedWorkTest : public testing::Test {
protected:
    InterruptedWorkTest() {
        fs::create_directories(docs / "inner");
        writeFile(docs / "file", "contents");
        writeFile(docs / "inner/deep", "deeper");
        copyInto(volume);
    }

    /// What the copy tool makes of the folder.
    void copyInto(const fs::path& place) const {
        const std::string command = "mkdir -p '" + place.string() + "' && cp -a '" + docs.string() +
                                    "/.' '" + place.string() + "'";
        if (std::system(command.c_str()) != 0) throw std::runtime_error("no copy");
    }
    static std::uint64_t inodeOf(const fs::path& path) {
        struct stat status {};
        ::lstat(path.c_str(), &status);
        return status.st_ino;
    }
    OperationNote begin(Operation operation) const {
        OperationNote::Contents contents;
        contents.operation = operation;
        contents.directory = parent.path();
        contents.folder = "Docs";
        contents.item = "Docs.quillvane";
        if (operation == Operation::protect) contents.image = image.filename();
        return OperationNote::begin(std::move(contents));
    }
    void writeKeyFile(const fs::path& container) const {
        KeyStore::write(VaultKeys::seal(vaultKey, Secret(std::string_view("right"))), container);
    }

    void protectUntilCopying() const {
        begin(Operation::protect);
        writeFile(image, "image");
    }
    void protectUntilCopied() const {
        protectUntilCopying();
        writeKeyFile(image);
    }
    void protectUntilDeleting() const {
        auto note = begin(Operation::protect);
        writeFile(image, "image");
        writeKeyFile(image);
        note.reach(Step::deleting, inodeOf(image));
    }
    void protectUntilDeleted() const {
        protectUntilDeleting();
        fs::remove_all(docs);
    }
    void protectUntilNamed() const {
        protectUntilDeleted();
        writeKeyFile(item);
        fs::rename(image, item);
    }
    /// With the folder "Docs" as the new one, whatever is in it.
    void removeUntilMade(bool copied) {
        writeFile(item, "image");
        writeKeyFile(item);
        auto note = begin(Operation::remove);
        note.reach(Step::made, inodeOf(docs));
        if (copied) note.reach(Step::copied);
    }

    Found found() const {
        const auto all = InterruptedWork::findIn(parent.path());
        if (all.size() != 1) throw std::logic_error(std::to_string(all.size()) + " were found");
        return all[0];
    }
    std::optional<Credential> password(const char* text = "right") const {
        return Credential::password(Secret(std::string_view(text)));
    }
    Outcome finish(const std::optional<Credential>& credential = std::nullopt) {
        return InterruptedWork::finish(found(), credential, [](const Progress&) {});
    }
    Outcome undo(const std::optional<Credential>& credential = std::nullopt) {
        return InterruptedWork::undo(found(), credential, [](const Progress&) {});
    }
    template <typename End> static std::string refusal(End end) {
        try {
            end();
        } catch (const InterruptedWorkError& error) {
            return error.what();
        }
        return "done";
    }

    Names names() const {
        Names list;
        for (const auto& entry : fs::directory_iterator(parent.path()))
            list.push_back(entry.path().filename().string());
        std::ranges::sort(list);
        return list;
    }
    void expectOnlyFolder() const {
        EXPECT_THAT(names(), ElementsAre("Docs"));
        EXPECT_EQ(readFile(docs / "file"), "contents");
        EXPECT_EQ(readFile(docs / "inner/deep"), "deeper");
        EXPECT_TRUE(tools.notes().empty());
    }
    void expectOnlyItem() const {
        EXPECT_THAT(names(), ElementsAre(".Docs.quillvane.qvkeys", "Docs.quillvane"));
        EXPECT_EQ(readFile(item), "image");
        EXPECT_TRUE(tools.notes().empty());
    }

    RecordingTools tools;
    TemporaryFolder parent;
    fs::path docs = parent / "Docs";
    fs::path item = parent / "Docs.quillvane";
    fs::path image = parent / ".Quillvane-11111111-2222-4333-8444-555555555555.sparseimage";
    fs::path volume = tools.mountPoint();
    Secret vaultKey = Secret(std::string_view("twenty bytes of key!"));
};

TEST_F(InterruptedWorkTest, NothingWasInterrupted) {
    EXPECT_TRUE(InterruptedWork::find().empty());
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
    EXPECT_TRUE(InterruptedWork::findIn(parent / "missing").empty());
}

TEST_F(InterruptedWorkTest, ANoteOfWhatLeftNothingGoesSilently) {
    begin(Operation::protect);
    writeKeyFile(image); // and so does the key of an image that is gone
    EXPECT_TRUE(InterruptedWork::find().empty());
    expectOnlyFolder();
}

TEST_F(InterruptedWorkTest, AnOperationUnderWayIsNotTold) {
    const auto note = begin(Operation::protect);
    writeFile(image, "image");
    EXPECT_TRUE(InterruptedWork::find().empty());
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
}

TEST_F(InterruptedWorkTest, ADirectoryThatIsNotThereKeepsItsNote) {
    protectUntilCopying();
    const fs::path away = tools.folder() / "away";
    fs::rename(parent.path(), away);
    EXPECT_TRUE(InterruptedWork::find().empty());
    fs::create_directory(parent.path()); // as the empty place of a disk
    EXPECT_TRUE(InterruptedWork::find().empty());
    fs::remove(parent.path());
    fs::rename(away, parent.path());
    EXPECT_EQ(found().state, State::unfinished);
}

TEST_F(InterruptedWorkTest, AnUnfinishedImageIsClearedAway) {
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

TEST_F(InterruptedWorkTest, ACopiedFolderIsKeptOrProtected) {
    protectUntilCopied();
    EXPECT_EQ(found().state, State::copied);
    undo();
    expectOnlyFolder();
    protectUntilCopied();
    EXPECT_TRUE(InterruptedWork::finishNeedsSecret(found()));
    EXPECT_EQ(finish(password()).result, item);
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, AFolderThatChangedSinceIsNotDeleted) {
    protectUntilCopied();
    writeFile(docs / "inner/new", "x");
    EXPECT_EQ(refusal([this] { finish(password()); }),
              "\"Docs\" holds what is not so in the encrypted copy: \"inner/new\". Undo this, "
              "which keeps the folder, and protect it again.");
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(found().state, State::copied);
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
}

TEST_F(InterruptedWorkTest, AWrongPasswordChangesNothing) {
    protectUntilDeleting();
    EXPECT_ANY_THROW(finish(password("wrong")));
    EXPECT_ANY_THROW(finish());
    EXPECT_EQ(found().state, State::deleting);
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(InterruptedWorkTest, ADeletionThatHadBegunIsFinished) {
    protectUntilDeleting();
    fs::remove(docs / "file");
    EXPECT_EQ(found().state, State::deleting);
    EXPECT_EQ(finish(password()).result, item);
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, WhatCameSinceTheDeletionBeganSurvives) {
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

TEST_F(InterruptedWorkTest, ADeletionThatHadBegunIsUndone) {
    protectUntilDeleting();
    fs::remove(docs / "file");
    EXPECT_TRUE(InterruptedWork::undoNeedsSecret(found()));
    EXPECT_EQ(undo(password()).result, docs);
    expectOnlyFolder();
}

TEST_F(InterruptedWorkTest, AnImageWithoutItsNameGetsIt) {
    protectUntilDeleted();
    EXPECT_EQ(found().state, State::unnamed);
    EXPECT_FALSE(InterruptedWork::finishNeedsSecret(found()));
    EXPECT_EQ(finish().result, item);
    expectOnlyItem();
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InterruptedWorkTest, AnotherFolderInThePlaceOfTheDeletedOneStays) {
    protectUntilDeleted();
    fs::rename(volume / "inner", docs); // not the inode that was noted
    EXPECT_EQ(found().state, State::unnamed);
    finish();
    EXPECT_EQ(readFile(docs / "deep"), "deeper");
    EXPECT_EQ(readFile(item), "image");
}

TEST_F(InterruptedWorkTest, ANameThatIsTakenIsNotTakenAway) {
    protectUntilDeleted();
    writeFile(item, "theirs");
    EXPECT_THROW(finish(), VaultError);
    EXPECT_EQ(readFile(item), "theirs");
    EXPECT_EQ(readFile(image), "image");
    EXPECT_EQ(found().state, State::unnamed);
}

TEST_F(InterruptedWorkTest, AnImageWithoutAnyKeyFileIsNotNamed) {
    protectUntilDeleted();
    KeyStore::remove(image);
    EXPECT_THAT(refusal([this] { finish(); }), HasSubstr("key file of the encrypted copy"));
    writeKeyFile(item); // the one that was written ahead serves as well
    finish();
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, AnImageWithItsNameLosesItsWorkingKeyFile) {
    protectUntilNamed();
    EXPECT_EQ(found().state, State::named);
    EXPECT_THAT(InterruptedWork::text(found()), HasSubstr("recovery key may not have been shown"));
    finish();
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, ARecoveryKeyThatWasNotShownIsTold) {
    const auto lock = [this] {
        const Secret secret(std::string_view("right"));
        return VaultEngine::lock(docs, secret, secret, Filesystem::apfs, [](const Progress&) {});
    };
    auto result = lock();
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty()) << "it is being shown";
    result.note.reset();
    EXPECT_EQ(found().state, State::named);
    finish();
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(InterruptedWorkTest, AShownRecoveryKeyLeavesNoNote) {
    const Secret secret(std::string_view("right"));
    VaultEngine::recoveryKeyShown(
        VaultEngine::lock(docs, secret, secret, Filesystem::apfs, [](const Progress&) {}));
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, AnImageThatIsGoneIsToldUntilItIsForgotten) {
    protectUntilDeleting();
    fs::remove(image);
    EXPECT_EQ(found().state, State::imageMissing);
    undo();
    EXPECT_TRUE(tools.notes().empty());
    EXPECT_TRUE(fs::exists(KeyStore::path(image))) << "the image may be elsewhere";
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(InterruptedWorkTest, AFolderThatWasJustMadeGoes) {
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

TEST_F(InterruptedWorkTest, AnIncompleteFolderGoesButWhatIsNotInTheItem) {
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

TEST_F(InterruptedWorkTest, AnIncompleteFolderIsRestoredAnew) {
    fs::remove(docs / "file");
    removeUntilMade(/*copied=*/false);
    EXPECT_EQ(finish(password()).result, docs);
    expectOnlyFolder();
}

TEST_F(InterruptedWorkTest, ARestoredFolderLosesItsItem) {
    removeUntilMade(/*copied=*/true);
    EXPECT_EQ(found().state, State::restored);
    EXPECT_FALSE(InterruptedWork::finishNeedsSecret(found()));
    writeFile(docs / "file", "contents"); // it may have been worked in
    EXPECT_EQ(finish().result, docs);
    expectOnlyFolder();
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InterruptedWorkTest, ARestoredFolderIsGivenUpAgain) {
    removeUntilMade(/*copied=*/true);
    EXPECT_EQ(undo(password()).result, item);
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, AFolderThatBeganToGoAgainIsNotWhole) {
    removeUntilMade(/*copied=*/true);
    OperationNote::take(found().note)->reach(Step::undoing);
    EXPECT_EQ(found().state, State::incomplete);
}

TEST_F(InterruptedWorkTest, AnotherItemOfThatNameIsLeftAlone) {
    removeUntilMade(/*copied=*/true);
    writeFile(parent / "newer", "newer");
    fs::rename(parent / "newer", item);
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
    EXPECT_EQ(readFile(item), "newer");
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
}

TEST_F(InterruptedWorkTest, AKeyFileGoesOnlyWhenAsked) {
    removeUntilMade(/*copied=*/true);
    fs::remove(item);
    EXPECT_EQ(found().state, State::keyFileLeft);
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
    EXPECT_EQ(refusal([this] { undo(); }), "The item is gone already. Protect \"Docs\" again.");
    finish();
    expectOnlyFolder();
}

TEST_F(InterruptedWorkTest, AnItemThatIsGoneFromAnIncompleteFolderIsTold) {
    removeUntilMade(/*copied=*/false);
    fs::rename(item, tools.folder() / "moved");
    EXPECT_EQ(found().state, State::itemMissing);
    EXPECT_THAT(InterruptedWork::text(found()), HasSubstr("may hold only a part"));
    finish();
    EXPECT_TRUE(tools.notes().empty());
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
}

TEST_F(InterruptedWorkTest, ImagesWithoutANoteAreToldAndNeverTouched) {
    writeFile(image, "image");
    EXPECT_EQ(found().state, State::strayImage);
    EXPECT_THAT(refusal([this] { undo(); }), HasSubstr("Nobody can open it"));
    writeKeyFile(image);
    EXPECT_EQ(found().state, State::strayOpenable);
    EXPECT_THAT(refusal([this] { finish(); }), HasSubstr("NAME.quillvane"));
    EXPECT_EQ(readFile(image), "image");
    EXPECT_TRUE(InterruptedWork::find().empty()) << "directories are not searched unasked";
}

TEST_F(InterruptedWorkTest, NeitherOthersNamesNorImagesInUseAreTold) {
    writeFile(parent / ".Quillvane-backup.sparseimage", "");
    fs::create_symlink("Docs/file", image);
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
    fs::remove(image);
    writeFile(image, "image");
    const FileDescriptor fd(::open(image.c_str(), O_RDWR | O_CLOEXEC));
    struct flock range {};
    range.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(fd.get(), F_OFD_SETLK, &range), 0);
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
}

TEST_F(InterruptedWorkTest, WhatChangedSinceItWasFoundIsNotEnded) {
    protectUntilCopying();
    const Found before = found();
    writeKeyFile(image);
    EXPECT_THAT(
        refusal([&] { InterruptedWork::undo(before, std::nullopt, [](const Progress&) {}); }),
        HasSubstr("Try again"));
    EXPECT_EQ(readFile(image), "image");
}

TEST_F(InterruptedWorkTest, ProtectingAgainClearsAwayOrRefuses) {
    protectUntilCopied();
    InterruptedWork::makeWayToProtect(docs);
    expectOnlyFolder();
    protectUntilDeleting();
    EXPECT_THAT(refusal([this] { InterruptedWork::makeWayToProtect(docs); }),
                HasSubstr("while the original was being deleted"));
    EXPECT_EQ(readFile(image), "image");
    InterruptedWork::makeWayToProtect(parent / "Other");
    EXPECT_EQ(found().state, State::deleting);
}

TEST_F(InterruptedWorkTest, RemovingAgainClearsAwayOrFinishes) {
    fs::remove(docs / "file");
    removeUntilMade(/*copied=*/false);
    EXPECT_EQ(InterruptedWork::makeWayToRemove(item, *password()), std::nullopt);
    expectOnlyItem();
    fs::create_directory(docs);
    removeUntilMade(/*copied=*/true);
    EXPECT_EQ(InterruptedWork::makeWayToRemove(item, *password()), docs);
    EXPECT_THAT(names(), ElementsAre("Docs"));
}

} // namespace
