#include "Quillvane/VaultEngine.h"
#include "tests/Quillvane/InterruptedFixture.h"
#include "tests/support/OrdinaryUser.h"

#include <fcntl.h>

namespace {

namespace fs = std::filesystem;
using InterruptedWork::State;
using Operation = OperationNote::Operation;
using Step = OperationNote::Step;
using testing::HasSubstr;
using InterruptedWorkTest = InterruptedFixture;

TEST_F(InterruptedWorkTest, NothingWasInterrupted) {
    EXPECT_TRUE(InterruptedWork::find().empty());
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
    EXPECT_TRUE(InterruptedWork::findIn(parent / "missing").empty());
}

TEST_F(InterruptedWorkTest, ANoteOfWhatLeftNothingGoesSilently) {
    {
        auto note = begin(Operation::protect);
        note.reach(OperationNote::Step::dropping);
    }
    writeKeyFile(image); // and so does the key of an image that was given up
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

TEST_F(InterruptedWorkTest, AnotherDiskInThePlaceOfTheOneKeepsItsNote) {
    begin(Operation::protect); // which leaves nothing, so that its note would go
    const auto birth = Platform::birthTime(parent.path());
    if (birth == 0) GTEST_SKIP() << "this file system keeps no birth times";
    const fs::path file = tools.notes().at(0);
    const std::string own = readFile(file);
    const auto withBirth = [&](std::int64_t number) {
        std::string text = own;
        const std::string known = std::to_string(birth);
        return text.replace(text.find(known), known.size(), std::to_string(number));
    };
    // The roots of two disks have the same inode number.
    writeFile(file, withBirth(birth + 1));
    EXPECT_TRUE(InterruptedWork::find().empty());
    EXPECT_EQ(tools.notes().size(), 1U);
    writeFile(image, "image");
    EXPECT_TRUE(InterruptedWork::find().empty());
    EXPECT_EQ(readFile(file), withBirth(birth + 1));
    for (const std::int64_t number : {birth, std::int64_t(0)}) {
        writeFile(file, withBirth(number));
        EXPECT_EQ(found().state, State::unfinished) << number;
    }
}

TEST_F(InterruptedWorkTest, AnImageInACopyOfTheDirectoryIsTold) {
    protectUntilDeleting();
    const fs::path away = tools.folder() / "away";
    fs::rename(parent.path(), away);
    copy(away, parent.path()); // as from a backup
    EXPECT_EQ(found().state, State::strayOpenable);
    EXPECT_EQ(tools.notes().size(), 1U);
    fs::remove_all(parent.path());
    fs::rename(away, parent.path());
    EXPECT_EQ(found().state, State::deleting);
}

TEST_F(InterruptedWorkTest, ADirectoryThatWasMovedIsFoundWhereItIs) {
    removeUntilMade(/*copied=*/false);
    if (Platform::birthTime(parent.path()) == 0)
        GTEST_SKIP() << "this file system keeps no birth times";
    const TemporaryFolder elsewhere; // as when a disk is mounted at another place
    const fs::path away = elsewhere / "away";
    fs::rename(parent.path(), away);
    const auto all = InterruptedWork::findIn(away);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].state, State::incomplete);
    EXPECT_EQ(InterruptedWork::place(all[0]), fs::canonical(away) / "Docs.quillvane");
    InterruptedWork::undo(all[0], password(), [](const Progress&) {});
    EXPECT_FALSE(fs::exists(away / "Docs"));
    EXPECT_EQ(readFile(away / "Docs.quillvane"), "image");
    EXPECT_TRUE(tools.notes().empty());
    fs::create_directory(parent.path());
}

TEST_F(InterruptedWorkTest, AnImageInADirectoryThatWasMovedIsFoundWhereItIs) {
    protectUntilDeleting();
    if (Platform::birthTime(parent.path()) == 0)
        GTEST_SKIP() << "this file system keeps no birth times";
    const fs::path away = tools.folder() / "away";
    fs::rename(parent.path(), away);
    const auto all = InterruptedWork::findIn(away);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].state, State::deleting);
    fs::rename(away, parent.path());
}

TEST_F(InterruptedWorkTest, ADirectoryThatCannotBeLookedIntoKeepsItsNote) {
    const TemporaryFolder folder;
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        Platform::setStateDirectory(folder / "state");
        OperationNote::Contents contents;
        contents.operation = Operation::remove;
        contents.directory = folder / "place";
        contents.folder = "Docs";
        contents.item = "Docs.quillvane";
        fs::create_directories(folder / "place/Docs");
        writeFile(folder / "place/Docs.quillvane", "image");
        OperationNote::begin(contents).reach(Step::made);
        fs::permissions(folder / "place", fs::perms::owner_read);
        const bool silent = InterruptedWork::find().empty();
        fs::permissions(folder / "place", fs::perms::owner_all);
        return silent && InterruptedWork::find().size() == 1;
    }));
}

TEST_F(InterruptedWorkTest, ADirectoryAndAFolderAreKnownByTheirBirth) {
    protectUntilDeleting();
    if (Platform::birthTime(parent.path()) == 0)
        GTEST_SKIP() << "this file system keeps no birth times";
    const fs::path file = tools.notes().at(0);
    std::string text = readFile(file);
    // As where another number is given at each mount.
    for (const fs::path& path : {parent.path(), docs}) {
        const std::string number = ":" + std::to_string(inodeOf(path));
        text.replace(text.find(number), number.size(), ":1");
    }
    writeFile(file, text);
    EXPECT_EQ(found().state, State::deleting);
    fs::rename(docs, parent / "elsewhere");
    copy(parent / "elsewhere", docs);
    EXPECT_EQ(found().state, State::unnamed) << "it is another folder";
}

TEST_F(InterruptedWorkTest, ADiskThatWentAwayInTheMiddleKeepsTheNote) {
    removeUntilMade(/*copied=*/false);
    const fs::path away = tools.folder() / "away";
    fs::rename(parent.path(), away);
    fs::create_directory(parent.path()); // the empty place of the disk
    {
        auto note = OperationNote::take(OperationNote::all().at(0).id);
        EXPECT_FALSE(InterruptedWork::settle(*note));
    }
    fs::remove(parent.path());
    fs::rename(away, parent.path());
    EXPECT_EQ(found().state, State::incomplete);
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

TEST_F(InterruptedWorkTest, WhatIsLeftAfterAShownRecoveryKeyGoesLaterWithoutAWord) {
    protectUntilNamed();
    {
        auto note = OperationNote::take(OperationNote::all().at(0).id);
        InterruptedWork::settleShown(*note);
        EXPECT_TRUE(note->contents().step(OperationNote::Step::shown));
        EXPECT_TRUE(fs::exists(KeyStore::path(image)));
    }
    EXPECT_THAT(InterruptedWork::findIn(parent.path()), testing::IsEmpty());
    expectOnlyItem();
}

TEST_F(InterruptedWorkTest, TheWorkingKeyFileStaysAsLongAsItIsTheOnlyOne) {
    protectUntilNamed();
    fs::remove(KeyStore::path(item));
    {
        auto note = OperationNote::take(OperationNote::all().at(0).id);
        InterruptedWork::settleShown(*note);
    }
    EXPECT_THAT(InterruptedWork::findIn(parent.path()), testing::IsEmpty());
    EXPECT_TRUE(fs::exists(KeyStore::path(image)));
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
    writeFile(volume / "what is new", "x");
    EXPECT_EQ(found().state, State::restored);
    EXPECT_EQ(
        refusal([this] { finish(password()); }),
        "\"Docs.quillvane\" has what is not so in \"Docs\": \"what is new\". Both stay: look at "
        "them, and delete yourself what you don't need.");
    EXPECT_EQ(readFile(item), "newer");
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
}

TEST_F(InterruptedWorkTest, AnImageThatWasMovedKeepsItsKeyFile) {
    protectUntilCopied();
    fs::rename(image, item);
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
    EXPECT_TRUE(fs::exists(KeyStore::path(image)));
}

TEST_F(InterruptedWorkTest, AnItemThatWasRenamedKeepsItsKeyFile) {
    removeUntilMade(/*copied=*/true);
    fs::rename(item, parent / "Kept.quillvane");
    EXPECT_TRUE(InterruptedWork::findIn(parent.path()).empty());
    EXPECT_TRUE(fs::exists(KeyStore::path(item)));
}

TEST_F(InterruptedWorkTest, AnImageIsKnownByItsName) {
    protectUntilDeleting();
    writeFile(parent / "copy", "image");
    fs::rename(parent / "copy", image);
    EXPECT_EQ(found().state, State::deleting);
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

TEST_F(InterruptedWorkTest, ImagesOfAnotherUserAreToldAsTheirs) {
    writeFile(image, "image");
    constexpr uid_t nobody = 65534;
    if (::chown(image.c_str(), nobody, nobody) != 0)
        GTEST_SKIP() << "needs root, to give a file away";
    EXPECT_EQ(found().state, State::strayForeign);
    EXPECT_THAT(refusal([this] { undo(); }), HasSubstr("Don't delete it"));
    EXPECT_EQ(readFile(image), "image");
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

} // namespace
