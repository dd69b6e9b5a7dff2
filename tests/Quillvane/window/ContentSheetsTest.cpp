#include "tests/Quillvane/window/ContentModelFixture.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;

class ContentSheetsTest : public ContentModelFixture {
protected:
    void offer() {
        router.setPendingContainer(itemURL);
        content.doubleClickPassword = "typed";
        content.doubleClickRecoveryKey = "typed key";
    }
    void expectSheetGone() const {
        EXPECT_TRUE(router.pendingContainer().isEmpty());
        EXPECT_EQ(content.pendingName(), "");
        EXPECT_EQ(content.doubleClickPassword + content.doubleClickRecoveryKey, "");
    }
    void showKey() { model->recoveryKeyToShow = "ABCD-EFGH"; }
    std::filesystem::path saved() const { return parent / "saved key.txt"; }
    void saveTo(const std::filesystem::path& file) {
        content.saveRecoveryKey();
        panels.chosen(QUrl::fromLocalFile(QString::fromStdString(file.string())));
    }
};

// An item opened from outside

TEST_F(ContentSheetsTest, TheItemHasItsFileName) {
    const QSignalSpy told(&content, &ContentModel::pendingNameChanged);
    EXPECT_EQ(content.pendingName(), "");
    router.setPendingContainer(itemURL);
    EXPECT_EQ(content.pendingName(), "Item.quillvane");
    EXPECT_EQ(told.count(), 1);
    router.setPendingContainer(QUrl(itemURL.toString() + "/"));
    EXPECT_EQ(content.pendingName(), "Item.quillvane") << "a slash at the end hides nothing";
}

TEST_F(ContentSheetsTest, OpensTheItemWithThePassword) {
    offer();
    model->errorMessage = "of another mode";
    const QSignalSpy told(&content, &ContentModel::sheetChanged);
    content.confirmDoubleClickOpen();
    EXPECT_EQ(model->mode, Mode::smart);
    EXPECT_EQ(model->errorMessage, "");
    EXPECT_TRUE(smart.isBusy());
    expectSheetGone();
    EXPECT_GE(told.count(), 1);
    tasks.finish();
    EXPECT_THAT(passphrases(), ElementsAre("typed\n"));
    ASSERT_EQ(smart.active().size(), 1U);
    EXPECT_EQ(smart.active()[0].lockedPath, item);
}

TEST_F(ContentSheetsTest, OpensTheItemWithTheRecoveryKey) {
    model->lockFolderURL = docsURL;
    model->lockPassword = model->lockConfirm = "secret";
    model->performLock();
    tasks.finish();
    router.setPendingContainer(QUrl::fromLocalFile(docsURL.toLocalFile() + ".quillvane"));
    content.doubleClickPassword = "wrong";
    content.doubleClickUseRecovery = true;
    content.doubleClickRecoveryKey = model->recoveryKeyToShow;
    content.confirmDoubleClickOpen();
    tasks.finish();
    EXPECT_EQ(smart.errorMessage(), "");
    EXPECT_EQ(smart.active().size(), 1U);
}

TEST_F(ContentSheetsTest, ItsStepsComeInOrder) {
    offer();
    QStringList steps;
    QObject::connect(model.get(), &VaultViewModel::formChanged, [&] {
        if (model->mode == Mode::smart && !steps.contains("mode")) steps.append("mode");
    });
    QObject::connect(&smart, &SmartFolderManager::isBusyChanged, [&] {
        EXPECT_EQ(content.doubleClickPassword, "typed") << "not emptied yet";
        steps.append("activate");
    });
    QObject::connect(&content, &ContentModel::sheetChanged, [&] {
        EXPECT_FALSE(router.pendingContainer().isEmpty());
        steps.append("fields");
    });
    QObject::connect(&router, &OpenRouter::pendingContainerChanged, [&] { steps.append("gone"); });
    content.confirmDoubleClickOpen();
    EXPECT_EQ(steps, QStringList({"mode", "activate", "fields", "gone"}));
}

TEST_F(ContentSheetsTest, AFailureIsToldBesideTheSmartFolders) {
    tools.play("hdiutil", "attach", "echo Authentication error >&2; exit 1");
    offer();
    content.confirmDoubleClickOpen();
    tasks.finish();
    EXPECT_NE(content.errorMessage(), "");
    EXPECT_EQ(content.errorMessage(), smart.errorMessage());
    expectSheetGone();
}

TEST_F(ContentSheetsTest, WhatWasTypedForOneItemIsNotTriedOnAnother) {
    offer();
    router.setPendingContainer(docsURL);
    EXPECT_EQ(content.doubleClickPassword + content.doubleClickRecoveryKey, "");
    EXPECT_EQ(content.pendingName(), "My Docs");
}

TEST_F(ContentSheetsTest, CancellingOpensNothing) {
    offer();
    content.cancelDoubleClickOpen();
    expectSheetGone();
    EXPECT_TRUE(tasks.started.empty());
    EXPECT_EQ(model->mode, Mode::lock);
}

// The recovery key

TEST_F(ContentSheetsTest, TheKeyOfASmartFolderIsShownOnce) {
    createInPlace();
    tasks.finish();
    EXPECT_THAT(model->recoveryKeyToShow.toStdString(),
                testing::MatchesRegex("[A-Z2-7]{4}(-[A-Z2-7]{4}){7}"));
    EXPECT_FALSE(smart.recoveryKeyToShow().has_value());
    EXPECT_FALSE(content.mayClose()) << "it would be lost";
    content.recoverySaved = true;
    content.continueAfterRecoveryKey();
    EXPECT_EQ(model->recoveryKeyToShow, "");
    EXPECT_TRUE(content.mayClose());
}

TEST_F(ContentSheetsTest, AKeyThatIsShownDoesNotTurnIntoAnother) {
    createInPlace();
    showKey();
    content.copied = true;
    tasks.finish();
    EXPECT_EQ(model->recoveryKeyToShow, "ABCD-EFGH");
    EXPECT_TRUE(content.copied);
    content.recoverySaved = true;
    content.continueAfterRecoveryKey();
    EXPECT_EQ(model->recoveryKeyToShow.size(), 39) << "now the other one";
    EXPECT_FALSE(content.copied);
    EXPECT_FALSE(content.recoverySaved);
    EXPECT_FALSE(content.mayClose());
}

TEST_F(ContentSheetsTest, AnItemIsNoFolderToMakeSmartAnyMore) {
    createInPlace();
    EXPECT_EQ(model->smartCreateFolderURL, docsURL);
    tasks.finish();
    EXPECT_TRUE(model->smartCreateFolderURL.isEmpty());
}

TEST_F(ContentSheetsTest, TheCopyOutlivesTheSheet) {
    showKey();
    content.copyRecoveryKey();
    content.recoverySaved = true;
    content.continueAfterRecoveryKey();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "ABCD-EFGH");
}

TEST_F(ContentSheetsTest, CopiesTheKeyAsASecret) {
    QGuiApplication::clipboard()->setText("something else");
    showKey();
    const QSignalSpy told(&content, &ContentModel::sheetChanged);
    EXPECT_FALSE(content.copied);
    content.copyRecoveryKey();
    EXPECT_TRUE(content.copied);
    EXPECT_EQ(told.count(), 1);
    const QMimeData* const data = QGuiApplication::clipboard()->mimeData();
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->text(), "ABCD-EFGH");
    EXPECT_EQ(data->data("x-kde-passwordManagerHint"), "secret");
    EXPECT_TRUE(data->hasFormat("org.nspasteboard.ConcealedType"));
    EXPECT_EQ(data->formats().size(), 3) << "nothing of what was there before";
}

TEST_F(ContentSheetsTest, SavesTheKeyForItsOwnerAlone) {
    showKey();
    saveTo(saved());
    EXPECT_EQ(panels.kind, FakePanels::Kind::textFile);
    EXPECT_EQ(panels.title, "Save recovery key");
    EXPECT_EQ(panels.proposedName, "Quillvane-recovery-key.txt");
    EXPECT_EQ(readFile(saved()),
              "Quillvane — recovery key\n\nABCD-EFGH\n\nKeep this safe. It's the only way back in "
              "if you forget your password.\n");
    struct stat status {};
    ASSERT_EQ(::stat(saved().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(model->recoveryKeyToShow, "ABCD-EFGH") << "it stays on the screen";
}

TEST_F(ContentSheetsTest, ReplacesAFileThatOthersMayRead) {
    writeFile(saved(), std::string(4096, 'x'));
    std::filesystem::permissions(saved(), std::filesystem::perms(0644));
    showKey();
    saveTo(saved());
    EXPECT_TRUE(readFile(saved()).starts_with("Quillvane — recovery key\n\nABCD-EFGH\n\n"));
    EXPECT_EQ(std::filesystem::status(saved()).permissions(), std::filesystem::perms(0600));
}

TEST_F(ContentSheetsTest, AFailedSaveIsSilent) {
    showKey();
    saveTo(parent / "no such folder" / "key.txt");
    content.saveRecoveryKey();
    panels.chosen(QUrl("https://example.org/key.txt"));
    for (const Mode mode : {Mode::lock, Mode::smart}) {
        model->mode = mode;
        EXPECT_EQ(content.errorMessage() + content.successMessage(), "");
    }
    EXPECT_EQ(model->recoveryKeyToShow, "ABCD-EFGH");
}

TEST_F(ContentSheetsTest, ContinuingNeedsThatTheKeyIsSaved) {
    showKey();
    content.copyRecoveryKey();
    content.continueAfterRecoveryKey();
    EXPECT_EQ(model->recoveryKeyToShow, "ABCD-EFGH");
    EXPECT_TRUE(content.copied);
    EXPECT_FALSE(content.mayClose());
    content.recoverySaved = true;
    content.continueAfterRecoveryKey();
    EXPECT_EQ(model->recoveryKeyToShow, "");
    EXPECT_FALSE(content.copied) << "the next key is another";
    EXPECT_FALSE(content.recoverySaved);
    EXPECT_TRUE(content.mayClose());
}

} // namespace
