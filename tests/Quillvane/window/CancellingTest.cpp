#include "Quillvane/InterruptedWork.h"
#include "Quillvane/ThreadTasks.h"
#include "tests/Quillvane/window/ContentModelFixture.h"

#include <gmock/gmock.h>

#include <thread>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr const char* cancelled = "Cancelled. Nothing was changed.";

class CancellingTest : public ContentModelFixture {
protected:
    CancellingTest() {
        QObject::connect(&content, &ContentModel::changed, [this] {
            const std::pair<std::string, std::string> now{content.statusMessage().toStdString(),
                                                          word()};
            if (content.busy() && (seen.empty() || seen.back() != now)) seen.push_back(now);
        });
    }
    const char* word() const {
        return content.cancellable() ? "cancellable" : content.committed() ? "committed" : "";
    }
    void startProtecting() {
        model->lockFolderURL = docsURL;
        model->lockPassword = model->lockConfirm = "secret";
        model->performLock();
    }
    /// What could be done about it, the last time that this was shown.
    std::string during(const std::string& step) const {
        std::string found = "never shown";
        for (const auto& [message, choice] : seen)
            if (message == step) found = choice;
        return found;
    }
    void expectCancelled() const {
        expectIdle(cancelled, "");
        EXPECT_EQ(model->statusMessage, "");
        EXPECT_TRUE(content.wasCancelled());
        for (const auto text : wiped) EXPECT_EQ((*model).*text, "");
    }
    void expectAsBefore() const {
        EXPECT_EQ(readFile(docs / "file"), "contents");
        EXPECT_FALSE(fs::exists(parent / "My Docs.quillvane"));
        EXPECT_TRUE(tools.notes().empty());
    }
    static void waitFor(const fs::path& file) {
        while (!fs::exists(file)) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    std::vector<std::pair<std::string, std::string>> seen;
};

TEST_F(CancellingTest, NothingRunsNothingIsCancelled) {
    content.cancel();
    EXPECT_STREQ(word(), "");
    EXPECT_EQ(content.statusMessage(), "");
}

TEST_F(CancellingTest, ProtectingIsCancelled) {
    startProtecting();
    EXPECT_STREQ(word(), "cancellable");
    tasks.beforeWork = [this] {
        content.cancel();
        EXPECT_EQ(content.statusMessage(), "Cancelling…");
        EXPECT_STREQ(word(), "");
        EXPECT_TRUE(content.busy()) << "until it has ended";
    };
    tasks.runNext();
    expectCancelled();
    EXPECT_EQ(model->lockFolderURL, docsURL);
    expectAsBefore();
    model->clearMessages();
    EXPECT_FALSE(content.wasCancelled());
}

TEST_F(CancellingTest, ACopyUnderWayIsEndedAtOnce) {
    ThreadTasks threads;
    VaultViewModel other(threads, panels);
    tools.play("ditto", "", "touch \"$here/begun\"; exec sleep 600");
    other.lockFolderURL = docsURL;
    other.lockPassword = other.lockConfirm = "secret";
    other.performLock();
    waitFor(tools.folder() / "begun");
    other.cancel();
    threads.finish();
    EXPECT_EQ(other.errorMessage, cancelled);
    EXPECT_TRUE(other.wasCancelled);
    expectAsBefore();
}

TEST_F(CancellingTest, PastThePointOfNoReturnItIsToldThatItIsTooLate) {
    startProtecting();
    tasks.finish();
    EXPECT_EQ(during("Checking the folder…"), "cancellable");
    EXPECT_EQ(during("Copying contents into the vault…"), "cancellable");
    EXPECT_EQ(during("Deleting the original folder…"), "committed");
    EXPECT_EQ(during("Done. Your folder is now protected."), "committed");
    EXPECT_STREQ(word(), "");
    EXPECT_EQ(content.errorMessage(), "");
}

TEST_F(CancellingTest, WhatComesTooLateIsRefused) {
    startProtecting();
    // The operation has ended when its reports arrive here.
    QObject::connect(model.get(), &VaultViewModel::stateChanged, [this] {
        if (model->statusMessage == "Checking the folder…") content.cancel();
    });
    tasks.finish();
    EXPECT_EQ(during("Checking the folder…"), "committed");
    EXPECT_EQ(during("Copying contents into the vault…"), "committed") << "it is shown further";
    EXPECT_EQ(content.errorMessage(), "");
    EXPECT_TRUE(fs::exists(parent / "My Docs.quillvane"));
}

TEST_F(CancellingTest, RemovingIsCancelled) {
    model->removeImageURL = itemURL;
    model->removePassword = "secret";
    model->performRemove();
    tasks.beforeWork = [this] { content.cancel(); };
    tasks.runNext();
    expectCancelled();
    EXPECT_TRUE(fs::exists(item));
    EXPECT_FALSE(fs::exists(parent / "Item"));
}

TEST_F(CancellingTest, ChangingIsCancelled) {
    seal("secret");
    model->changeImageURL = itemURL;
    model->changeCurrentPassword = "secret";
    model->changeNewPassword = model->changeNewConfirm = "next";
    model->performChangePassword();
    tasks.beforeWork = [this] { content.cancel(); };
    tasks.runNext();
    expectCancelled();
    EXPECT_TRUE(unseals("secret"));
}

TEST_F(CancellingTest, WhatIsOpenedAllTheSameIsClosedAgain) {
    ThreadTasks threads;
    VaultViewModel other(threads, panels);
    tools.play("open", "",
               "touch \"$here/begun\"; while [ ! -e \"$here/go\" ]; do sleep 0.01; done");
    other.openImageURL = itemURL;
    other.openPassword = "secret";
    other.performOpen();
    waitFor(tools.folder() / "begun");
    other.cancel();
    writeFile(tools.folder() / "go", "");
    threads.finish();
    EXPECT_EQ(other.errorMessage, cancelled);
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    EXPECT_EQ(other.openedMountPoint, "");
}

TEST_F(CancellingTest, ClosingNeverCanBe) {
    open();
    seen.clear();
    model->performClose();
    content.cancel();
    tasks.finish();
    EXPECT_EQ(during("Closing the vault…"), "");
    EXPECT_EQ(model->successMessage, "Locked and ejected.");
}

TEST_F(CancellingTest, ErrorsAreNoCancellations) {
    model->openImageURL = QUrl("file:///nowhere/None.quillvane");
    model->openPassword = "secret";
    model->performOpen();
    tasks.finish();
    EXPECT_NE(content.errorMessage(), "");
    EXPECT_FALSE(content.wasCancelled());
}

// Smart Folders

TEST_F(CancellingTest, CreatingASmartFolderIsCancelled) {
    content.selectMode(Mode::smart);
    createInPlace();
    EXPECT_STREQ(word(), "cancellable");
    tasks.beforeWork = [this] {
        content.cancel();
        EXPECT_EQ(content.statusMessage(), "Cancelling…");
    };
    tasks.runNext();
    EXPECT_EQ(content.errorMessage(), cancelled);
    EXPECT_TRUE(content.wasCancelled());
    EXPECT_FALSE(content.busy());
    expectAsBefore();
    tasks.beforeWork = nullptr;
    failSmartFolder();
    EXPECT_FALSE(content.wasCancelled());
}

TEST_F(CancellingTest, CreatingASmartFolderHasItsPointOfNoReturn) {
    createInPlace();
    tasks.finish();
    EXPECT_EQ(during("Checking the folder…"), "cancellable");
    EXPECT_EQ(during("Deleting the original folder…"), "committed");
    EXPECT_STREQ(word(), "");
}

TEST_F(CancellingTest, AKeyThatTakesTooLongIsGivenUp) {
    seal("secret");
    content.selectMode(Mode::smart);
    model->smartActivateURL = itemURL;
    model->smartActivatePassword = "secret";
    content.activateSmartFolder();
    EXPECT_STREQ(word(), "cancellable");
    tasks.beforeWork = [this] {
        content.cancel();
        EXPECT_STREQ(word(), "");
    };
    tasks.runNext();
    EXPECT_EQ(content.errorMessage(), cancelled);
    EXPECT_TRUE(smart.active().empty());
}

// The recovery key counts as shown when its sheet is left

class KeyShownTest : public CancellingTest {
protected:
    void leaveSheet() {
        ASSERT_NE(model->recoveryKeyToShow, "");
        content.recoverySaved = true;
        content.continueAfterRecoveryKey();
        tasks.finish();
    }
};

TEST_F(KeyShownTest, TheNoteStaysUntilTheSheetIsLeft) {
    startProtecting();
    tasks.finish();
    EXPECT_EQ(tools.notes().size(), 1U);
    EXPECT_TRUE(InterruptedWork::find().empty()) << "it is told here, at this moment";
    leaveSheet();
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(KeyShownTest, SoDoesThatOfASmartFolder) {
    createInPlace();
    tasks.finish();
    EXPECT_EQ(tools.notes().size(), 1U);
    leaveSheet();
    EXPECT_TRUE(tools.notes().empty());
}

TEST_F(KeyShownTest, AKeyThatWasNotLeftIsToldTheNextTime) {
    VaultViewModel* const other = new VaultViewModel(tasks, panels);
    other->lockFolderURL = docsURL;
    other->lockPassword = other->lockConfirm = "secret";
    other->performLock();
    tasks.finish();
    delete other;
    const auto found = InterruptedWork::find();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].state, InterruptedWork::State::named);
}

} // namespace
