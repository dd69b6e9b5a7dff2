#include "tests/Quillvane/window/ContentModelFixture.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

/// What was interrupted, and what the window makes of its end.
class ContentInterruptedTest : public ContentModelFixture {
protected:
    /// A protection of the folder that has come as far as the copying.
    void interruptCopying() const {
        OperationNote::Contents contents;
        contents.operation = OperationNote::Operation::protect;
        contents.directory = parent.path();
        contents.folder = docs.filename();
        contents.item = docs.filename().string() + ".quillvane";
        contents.image = image.filename();
        OperationNote::begin(contents);
        writeFile(image, "image");
    }
    /// The same with the image whole, so that it can be finished with "secret".
    void interruptAfterCopying() const {
        interruptCopying();
        KeyStore::write(
            VaultKeys::seal(Secret(std::string_view("twenty bytes of key!")), Secret("secret")),
            image);
        fs::remove(fs::path(tools.mountPoint()) / "inner");
        const std::string command = "cp -a '" + docs.string() + "/.' '" + tools.mountPoint() + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
    }
    void look() {
        interrupted.look();
        looking.finish();
        ASSERT_TRUE(interrupted.any());
    }

    fs::path image = parent / ".Quillvane-11111111-2222-4333-8444-555555555555.sparseimage";
};

TEST_F(ContentInterruptedTest, EndingIsAnOperationOfTheWindow) {
    interruptAfterCopying();
    look();
    const QSignalSpy told(&content, &ContentModel::changed);
    interrupted.password = "secret";
    interrupted.finish();
    EXPECT_TRUE(content.busy());
    EXPECT_FALSE(content.mayClose());
    EXPECT_TRUE(content.cancellable());
    EXPECT_EQ(content.statusMessage(), "Preparing…");
    EXPECT_LT(content.progressFraction(), 0);
    EXPECT_GE(told.count(), 1);
    tasks.finish();
    EXPECT_FALSE(content.busy());
    EXPECT_TRUE(content.mayClose());
}

TEST_F(ContentInterruptedTest, IsToldAfterTheNextOperationInItsDirectory) {
    interruptCopying();
    writeFile(parent / "Other.quillvane", "image");
    model->openImageURL = QUrl::fromLocalFile(QString::fromStdString(parent / "Other.quillvane"));
    model->openPassword = "secret";
    model->performOpen();
    EXPECT_FALSE(interrupted.any());
    tasks.finish();
    looking.finish();
    EXPECT_EQ(content.successMessage(),
              "Opened. Work in the folder, then eject it to lock it again.");
    EXPECT_TRUE(interrupted.text().startsWith("Protecting \"My Docs\" in "));
}

TEST_F(ContentInterruptedTest, WhatIsFinishedIsTold) {
    interruptAfterCopying();
    look();
    content.selectMode(Mode::smart);
    model->errorMessage = "of the operation that failed";
    model->lockFolderURL = model->smartCreateFolderURL = docsURL;
    interrupted.password = "secret";
    interrupted.finish();
    tasks.finish();
    EXPECT_EQ(model->mode, Mode::lock);
    EXPECT_TRUE(content.successMessage().startsWith("Your password opens \"My Docs.quillvane\"."))
        << content.successMessage().toStdString();
    EXPECT_EQ(content.errorMessage(), "");
    EXPECT_TRUE(model->lockFolderURL.isEmpty()) << "it is gone";
    EXPECT_TRUE(model->smartCreateFolderURL.isEmpty());
}

TEST_F(ContentInterruptedTest, TheFolderCanBeProtectedNow) {
    interruptCopying();
    look();
    content.selectMode(Mode::open);
    interrupted.finish();
    tasks.finish();
    EXPECT_EQ(model->mode, Mode::lock);
    EXPECT_EQ(model->lockFolderURL, docsURL);
    EXPECT_EQ(content.successMessage(),
              "What was left is cleared away. The folder is as it was; protect it again.");
    EXPECT_FALSE(fs::exists(image));
}

TEST_F(ContentInterruptedTest, WhatIsCleanedUpIsNotChosen) {
    interruptCopying();
    look();
    interrupted.undo();
    tasks.finish();
    EXPECT_TRUE(model->lockFolderURL.isEmpty());
    EXPECT_EQ(content.successMessage(), "What was left is cleared away. The folder is as it was.");
}

TEST_F(ContentInterruptedTest, ARemovalThatIsFinishedIsToldAsOne) {
    writeFile(item, "image");
    fs::create_directory(parent / "Item");
    fs::remove_all(tools.mountPoint());
    fs::create_directory(tools.mountPoint());
    OperationNote::Contents contents;
    contents.operation = OperationNote::Operation::remove;
    contents.directory = parent.path();
    contents.folder = "Item";
    contents.item = "Item.quillvane";
    {
        OperationNote note = OperationNote::begin(contents);
        struct stat status {};
        ASSERT_EQ(::stat((parent / "Item").c_str(), &status), 0);
        note.reach(OperationNote::Step::made, status.st_ino);
        note.reach(OperationNote::Step::copied);
    }
    look();
    model->removeImageURL = itemURL;
    interrupted.password = "secret";
    interrupted.finish();
    tasks.finish();
    EXPECT_EQ(model->mode, Mode::remove);
    EXPECT_EQ(content.successMessage().toStdString(),
              "Password removed. It's a normal folder again:\n" + (parent / "Item").string());
    EXPECT_TRUE(model->removeImageURL.isEmpty());
    EXPECT_FALSE(fs::exists(item));
}

TEST_F(ContentInterruptedTest, WhatComesOfSeveralIsToldTogether) {
    interruptCopying();
    const fs::path other = parent / ".Quillvane-21111111-2222-4333-8444-555555555555.sparseimage";
    OperationNote::Contents contents;
    contents.operation = OperationNote::Operation::protect;
    contents.directory = parent.path();
    contents.folder = "Other";
    contents.item = "Other.quillvane";
    contents.image = other.filename();
    fs::create_directory(parent / "Other");
    OperationNote::begin(contents);
    writeFile(other, "image");
    look();
    const QString one = "What was left is cleared away. The folder is as it was.";
    interrupted.undo();
    tasks.finish();
    interrupted.undo();
    tasks.finish();
    EXPECT_EQ(content.successMessage(), one + "\n\n" + one);
    interruptCopying();
    look();
    interrupted.undo();
    tasks.finish();
    EXPECT_EQ(content.successMessage(), one) << "no more of the former ones";
}

TEST_F(ContentInterruptedTest, AFailureWithNothingLeftToEndIsAnErrorOfTheWindow) {
    content.selectMode(Mode::smart);
    emit interrupted.failed("text", false);
    EXPECT_EQ(content.errorMessage(), "text");
    EXPECT_FALSE(content.wasCancelled());
    emit interrupted.failed("text", true);
    EXPECT_TRUE(content.wasCancelled());
}

TEST_F(ContentInterruptedTest, AFailedOperationIsLookedAfter) {
    interruptAfterCopying();
    tools.play("hdiutil", "create", "exit 1");
    const auto expectTold = [this] {
        tasks.finish();
        EXPECT_FALSE(looking.started.empty());
        looking.finish();
        EXPECT_TRUE(interrupted.any());
        interrupted.later();
    };
    // With the deletion noted it stands in the way.
    auto found = InterruptedWork::findIn(parent.path());
    ASSERT_EQ(found.size(), 1U);
    {
        auto note = OperationNote::take(found[0].note);
        struct stat status {};
        ASSERT_EQ(::stat(image.c_str(), &status), 0);
        note->reach(OperationNote::Step::deleting, status.st_ino);
    }
    model->lockFolderURL = docsURL;
    model->lockPassword = model->lockConfirm = "secret";
    model->performLock();
    expectTold();
    EXPECT_TRUE(model->errorMessage.contains("while the original was being deleted"));
    createInPlace();
    expectTold();
    model->removeImageURL = QUrl(docsURL.toString() + ".quillvane");
    model->performRemove();
    expectTold();
    // Closing is no occasion: what it closes was opened, and told of, before.
    model->openedMountPoint = "/nowhere";
    model->performClose();
    tasks.finish();
    EXPECT_TRUE(looking.started.empty());
}

} // namespace
