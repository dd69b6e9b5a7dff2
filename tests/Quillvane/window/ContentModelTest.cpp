#include "tests/Quillvane/window/ContentModelFixture.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;

class ContentModelTest : public ContentModelFixture {};

// What both objects are doing

TEST_F(ContentModelTest, IsIdleAtFirst) {
    EXPECT_FALSE(content.busy());
    EXPECT_LT(content.progressFraction(), 0);
    EXPECT_TRUE(content.mayClose());
}

TEST_F(ContentModelTest, IsBusyWithAnItem) {
    const QSignalSpy told(&content, &ContentModel::changed);
    model->openImageURL = itemURL;
    model->performOpen();
    EXPECT_TRUE(content.busy());
    EXPECT_FALSE(content.mayClose());
    EXPECT_EQ(content.statusMessage(), "Opening…");
    EXPECT_LT(content.progressFraction(), 0) << "not known yet";
    EXPECT_GE(told.count(), 1);
    model->progressFraction = 0.25;
    EXPECT_EQ(content.progressFraction(), 0.25);
    tasks.finish();
    EXPECT_FALSE(content.busy());
    EXPECT_TRUE(content.mayClose());
}

TEST_F(ContentModelTest, IsBusyWithASmartFolder) {
    const QSignalSpy told(&content, &ContentModel::changed);
    model->smartActivateURL = itemURL;
    content.activateSmartFolder();
    EXPECT_TRUE(content.busy());
    EXPECT_FALSE(content.mayClose());
    EXPECT_EQ(content.statusMessage(), "Opening Item in place…");
    EXPECT_LT(content.progressFraction(), 0);
    EXPECT_GE(told.count(), 1);
    tasks.finish();
    EXPECT_FALSE(content.busy());
    EXPECT_TRUE(content.mayClose());
}

TEST_F(ContentModelTest, TheModeDecidesWhoseMessagesAreShown) {
    openInPlace();
    failSmartFolder();
    model->errorMessage = "the view model's error";
    model->successMessage = "the view model's success";
    for (const Mode mode : {Mode::lock, Mode::open, Mode::remove, Mode::change}) {
        model->mode = mode;
        EXPECT_EQ(content.errorMessage(), "the view model's error");
        EXPECT_EQ(content.successMessage(), "the view model's success");
    }
    model->mode = Mode::smart;
    EXPECT_EQ(content.errorMessage(), smart.errorMessage());
    EXPECT_EQ(content.successMessage(), "");
}

TEST_F(ContentModelTest, TheManagersSuccessIsShownInItsMode) {
    openInPlace();
    EXPECT_EQ(content.successMessage(), "") << "not in another mode";
    model->mode = Mode::smart;
    EXPECT_TRUE(content.successMessage().startsWith("\"Item\" opened in place."));
}

// The item of the mode, and its drive

TEST_F(ContentModelTest, EachModeHasItsItem) {
    model->lockFolderURL = QUrl("file:///lock");
    model->openImageURL = QUrl("file:///open");
    model->removeImageURL = QUrl("file:///remove");
    model->changeImageURL = QUrl("file:///change");
    model->smartCreateFolderURL = QUrl("file:///create");
    QStringList items;
    for (const Mode mode : {Mode::lock, Mode::open, Mode::remove, Mode::change, Mode::smart}) {
        content.selectMode(mode);
        items.append(content.currentSelectedURL().path());
    }
    EXPECT_EQ(items, QStringList({"/lock", "/open", "/remove", "/change", "/create"}));
    model->smartActivateURL = QUrl("file:///activate");
    EXPECT_EQ(content.currentSelectedURL().path(), "/activate") << "it comes first";
}

TEST_F(ContentModelTest, NothingChosenHasNoDrive) {
    for (const Mode mode : {Mode::lock, Mode::open, Mode::remove, Mode::change, Mode::smart}) {
        content.selectMode(mode);
        EXPECT_TRUE(content.currentSelectedURL().isEmpty());
        EXPECT_EQ(content.driveName(), "");
    }
}

TEST_F(ContentModelTest, TheDriveIsThatOfTheItem) {
    const QSignalSpy told(&content, &ContentModel::driveNameChanged);
    model->setProperty("lockFolderURL", docsURL);
    EXPECT_EQ(told.count(), 1);
    EXPECT_EQ(content.driveName().toStdString(), Platform::volumeName(docs).value_or(""));
    model->setProperty("lockPassword", "typing asks nobody again");
    EXPECT_EQ(told.count(), 1);
    content.selectMode(Mode::open);
    EXPECT_EQ(told.count(), 2);
    EXPECT_EQ(content.driveName(), "");
}

TEST_F(ContentModelTest, AnItemThatIsGoneHasNoDrive) {
    model->setProperty("lockFolderURL", QUrl("file:///nowhere/at all"));
    EXPECT_EQ(content.driveName(), "");
}

TEST_F(ContentModelTest, ANewModeClearsMessagesAndKeepsFields) {
    model->lockFolderURL = docsURL;
    fillSecrets();
    model->errorMessage = model->successMessage = model->statusMessage = "of the former mode";
    content.selectMode(Mode::open);
    EXPECT_EQ(model->mode, Mode::open);
    EXPECT_EQ(model->errorMessage + model->successMessage + model->statusMessage, "");
    EXPECT_EQ(model->lockFolderURL, docsURL);
    EXPECT_EQ(model->lockPassword, "secret");
    EXPECT_EQ(model->smartCreatePassword, "creation");
}

TEST_F(ContentModelTest, AnotherModeHidesNoRunningStep) {
    model->lockFolderURL = docsURL;
    model->performLock();
    content.selectMode(Mode::open);
    EXPECT_EQ(content.statusMessage(), "Preparing…");
}

TEST_F(ContentModelTest, TheVersionHasItsBuild) {
    EXPECT_THAT(content.appVersion().toStdString(),
                testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+ \\([0-9]+\\)"));
}

// Smart Folders

TEST_F(ContentModelTest, NothingChosenDoesNothing) {
    content.createSmartFolder();
    content.activateSmartFolder();
    content.showMountPoint();
    content.confirmDoubleClickOpen();
    content.saveRecoveryKey();
    EXPECT_FALSE(content.busy());
    EXPECT_TRUE(tasks.started.empty());
    EXPECT_EQ(smart.errorMessage(), "");
    EXPECT_EQ(model->mode, Mode::lock);
}

TEST_F(ContentModelTest, ActivatingTakesTheFormsCredential) {
    openInPlace();
    EXPECT_THAT(passphrases(), ElementsAre("secret\n"));
    EXPECT_EQ(smart.active()[0].lockedPath, item);
}

TEST_F(ContentModelTest, AFinishedOperationWipesBothForms) {
    for (const bool fails : {false, true}) {
        if (fails) tools.play("hdiutil", "attach", "echo no >&2; exit 1");
        model->smartCreatePassword = model->smartCreateConfirm = "creation";
        model->smartActivateRecoveryKey = "key";
        model->smartActivatePassword = "secret";
        model->smartActivateURL = fails ? docsURL : itemURL;
        const QSignalSpy forms(model.get(), &VaultViewModel::formChanged);
        content.activateSmartFolder();
        EXPECT_EQ(model->smartActivatePassword, "secret") << "not before it is finished";
        tasks.finish();
        EXPECT_EQ(smart.errorMessage().isEmpty(), !fails);
        EXPECT_EQ(model->smartCreatePassword + model->smartCreateConfirm, "");
        EXPECT_EQ(model->smartActivatePassword + model->smartActivateRecoveryKey, "");
        EXPECT_GE(forms.count(), 1);
    }
}

TEST_F(ContentModelTest, WhatIsRefusedAtOnceWipesBothForms) {
    openInPlace();
    model->smartActivatePassword = "secret";
    content.activateSmartFolder();
    EXPECT_NE(smart.errorMessage(), "") << "it is open already";
    EXPECT_EQ(model->smartActivatePassword, "");
}

TEST_F(ContentModelTest, ClosesTheEntryAskedFor) {
    const QString id = openInPlace();
    content.closeSmartFolder("no such entry");
    EXPECT_TRUE(tasks.started.empty());
    content.closeSmartFolder(id);
    EXPECT_EQ(content.statusMessage(), "Closing Item…") << "a close by hand, which tells";
    tasks.finish();
    EXPECT_TRUE(smart.active().empty());
}

TEST_F(ContentModelTest, ShowsOnlyWhatIsOpen) {
    openInPlace();
    content.showSmartFolder("no such entry");
    EXPECT_TRUE(tasks.started.empty());
}

TEST_F(ContentModelTest, ShowsTheMountPoint) {
    open();
    content.showMountPoint();
    tasks.finish();
    EXPECT_EQ(tools.commandLines().back(), "open " + model->openedMountPoint.toStdString());
}

TEST_F(ContentModelTest, AMissingFileManagerIsNoError) {
    open();
    tools.uninstall("open");
    content.showMountPoint();
    tasks.finish();
    EXPECT_EQ(content.errorMessage(), "");
}

} // namespace
