#include "tests/Quillvane/window/VaultViewModelFixture.h"

#include <gmock/gmock.h>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::Pair;

// Locking

class LockActionTest : public VaultViewModelFixture {
protected:
    void lock(const QString& password = "pässword", const QString& confirm = "pässword") {
        fillSecrets();
        model->lockFolderURL = docsURL;
        model->lockPassword = password;
        model->lockConfirm = confirm;
        model->performLock();
        tasks.finish();
    }
};

TEST_F(LockActionTest, ShowsThePathAndTheRecoveryKey) {
    QSignalSpy forms(model.get(), &VaultViewModel::formChanged);
    lock();
    const auto target = parent / "My Docs.quillvane";
    expectIdle("", "Locked. Your folder is protected:\n" + QString::fromStdString(target.string()));
    expectWiped();
    EXPECT_TRUE(model->lockFolderURL.isEmpty());
    EXPECT_GE(forms.count(), 1);
    EXPECT_THAT(model->recoveryKeyToShow.toStdString(),
                testing::MatchesRegex("[A-Z2-7]{4}(-[A-Z2-7]{4}){7}"));
    const Credential key = Credential::recoveryKey(secretOf(model->recoveryKeyToShow));
    EXPECT_EQ(
        VaultEngine::vaultKey(target, key),
        VaultEngine::vaultKey(target, Credential::password(Secret(std::string_view("pässword")))));
}

TEST_F(LockActionTest, TakesTheSystemsOwnFormat) {
    lock();
    EXPECT_EQ(tools.calls().at(0).arguments.at(9), "APFS");
}

TEST_F(LockActionTest, ReportsFractionAndStep) {
    lock();
    EXPECT_EQ(shown.front(), Status(-1, "Preparing…"));
    EXPECT_THAT(shown, testing::Contains(Status(0.02, "Checking the folder…")));
    EXPECT_THAT(shown, testing::Contains(Status(0.93, "Deleting the original folder…")));
    EXPECT_THAT(shown, testing::Contains(Status(1.0, "Done. Your folder is now protected.")));
    EXPECT_EQ(shown.back(), Status(-1, "Done. Your folder is now protected."));
}

TEST_F(LockActionTest, IsUndoneWhenTheProgramEnds) {
    model->lockFolderURL = docsURL;
    model->lockPassword = model->lockConfirm = "password";
    model->performLock();
    QMetaObject::invokeMethod(QCoreApplication::instance(), "aboutToQuit");
    tasks.finish();
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::exists(docs));
    EXPECT_FALSE(fs::exists(parent / "My Docs.quillvane"));
}

TEST_F(LockActionTest, IsUndoneWhenTheWindowGoes) {
    fillSecrets();
    model->lockFolderURL = docsURL;
    model->lockPassword = model->lockConfirm = "password";
    model->performLock();
    model.reset();
    tasks.finish();
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::exists(docs));
    EXPECT_FALSE(fs::exists(parent / "My Docs.quillvane"));
}

TEST_F(LockActionTest, TheOperationRefusesBadPasswords) {
    lock("", "");
    expectError("Password can't be empty.");
    EXPECT_EQ(model->lockFolderURL, docsURL) << "for another try";
    lock("a", "b");
    expectError("The two passwords don't match.");
    EXPECT_EQ(model->recoveryKeyToShow, "");
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(LockActionTest, ADismissedRecoveryKeyIsGone) {
    model->recoveryKeyToShow = "key";
    QSignalSpy states(model.get(), &VaultViewModel::stateChanged);
    model->dismissRecoveryKey();
    EXPECT_EQ(model->recoveryKeyToShow, "");
    EXPECT_EQ(states.count(), 1);
}

// Opening

class OpenActionTest : public VaultViewModelFixture {
protected:
    void start() {
        fillSecrets();
        model->openImageURL = itemURL;
        model->performOpen();
        tasks.finish();
    }
};

TEST_F(OpenActionTest, RemembersWhatIsOpen) {
    start();
    expectIdle("", "Opened. Work in the folder, then eject it to lock it again.");
    expectWiped();
    EXPECT_EQ(model->openedMountPoint.toStdString(), tools.mountPoint());
    ASSERT_TRUE(model->openMountInfo.has_value());
    EXPECT_EQ(model->openMountInfo->diskDevEntry, "/dev/disk4");
    EXPECT_EQ(model->openMountInfo->mountPoint, tools.mountPoint());
    EXPECT_EQ(model->openImageURL, itemURL);
}

TEST_F(OpenActionTest, ReportsFractionAndStep) {
    start();
    EXPECT_THAT(shown, ElementsAre(Pair(-1, "Opening…"), Pair(-1, "Opening the vault…"),
                                   Pair(1.0, "Opened. The volume is mounted."),
                                   Pair(-1, "Opened. The volume is mounted.")));
}

TEST_F(OpenActionTest, PassesThePasswordOn) {
    start();
    EXPECT_EQ(tools.calls().at(0).standardInput, "secret\n");
}

TEST_F(OpenActionTest, PassesTheRecoveryKeyOnWhenAskedTo) {
    model->openUseRecovery = true;
    start();
    expectError("Invalid recovery key. Check that you typed it correctly.");
    EXPECT_TRUE(model->openUseRecovery);
}

TEST_F(OpenActionTest, FailureKeepsTheItemForAnotherTry) {
    refusePassphrase();
    start();
    expectError("Wrong password: can't open the vault.");
    EXPECT_EQ(model->openImageURL, itemURL);
    EXPECT_FALSE(model->openMountInfo.has_value());
    EXPECT_EQ(model->openedMountPoint, "");
    tools.play("hdiutil", "attach", "cat \"$here/attached.plist\"");
    start();
    expectIdle("", "Opened. Work in the folder, then eject it to lock it again.");
}

TEST_F(OpenActionTest, OtherErrorsAreToldInTheSystemsWords) {
    tools.uninstall("hdiutil");
    start();
    expectError("Couldn't launch hdiutil. No such file or directory");
}

// Removing the password

class RemoveActionTest : public VaultViewModelFixture {
protected:
    void remove() {
        fillSecrets();
        model->removeImageURL = itemURL;
        model->performRemove();
        tasks.finish();
    }
};

TEST_F(RemoveActionTest, ShowsTheFolder) {
    remove();
    const auto restored = parent / "Item";
    expectIdle("", "Password removed. It's a normal folder again:\n" +
                       QString::fromStdString(restored.string()));
    expectWiped();
    EXPECT_TRUE(fs::is_directory(restored / "inner"));
    EXPECT_TRUE(model->removeImageURL.isEmpty());
    EXPECT_EQ(tools.calls().at(0).standardInput, "secret\n");
}

TEST_F(RemoveActionTest, ReportsFractionAndStep) {
    remove();
    EXPECT_EQ(shown.front(), Status(-1, "Preparing…"));
    EXPECT_THAT(shown, testing::Contains(Status(0.15, "Opening the item…")));
    EXPECT_EQ(shown.back(), Status(-1, "Done. It's a normal folder again."));
}

TEST_F(RemoveActionTest, IsUndoneWhenTheWindowGoes) {
    model->removeImageURL = itemURL;
    model->removePassword = "right";
    model->performRemove();
    model.reset();
    tasks.finish();
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::exists(item));
}

TEST_F(RemoveActionTest, PassesTheRecoveryKeyOnWhenAskedTo) {
    model->removeUseRecovery = true;
    remove();
    expectError("Invalid recovery key. Check that you typed it correctly.");
    EXPECT_TRUE(model->removeUseRecovery);
}

TEST_F(RemoveActionTest, FailureKeepsTheItemForAnotherTry) {
    refusePassphrase();
    remove();
    expectError("Wrong password: can't open the vault.");
    EXPECT_EQ(model->removeImageURL, itemURL);
    EXPECT_TRUE(fs::exists(item));
}

// Changing the password

class ChangeActionTest : public VaultViewModelFixture {
protected:
    void start(const QString& newPassword, const QString& confirm) {
        fillSecrets();
        model->changeImageURL = itemURL;
        model->changeNewPassword = newPassword;
        model->changeNewConfirm = confirm;
        model->performChangePassword();
    }
    void expectRefused(const QString& text) const {
        EXPECT_EQ(model->errorMessage, text);
        EXPECT_EQ(model->successMessage, "former");
        EXPECT_EQ(model->statusMessage, "former");
        EXPECT_EQ(model->changeCurrentPassword, "secret");
        EXPECT_FALSE(model->isBusy);
        EXPECT_TRUE(tasks.started.empty());
    }
};

TEST_F(ChangeActionTest, AnEmptyNewPasswordIsRefused) {
    model->successMessage = model->statusMessage = "former";
    QSignalSpy states(model.get(), &VaultViewModel::stateChanged);
    start("", "");
    expectRefused("The new password can't be empty.");
    EXPECT_EQ(states.count(), 1);
    model->errorMessage.clear();
    start("", "b");
    expectRefused("The new password can't be empty.");
}

TEST_F(ChangeActionTest, DifferentNewPasswordsAreRefused) {
    model->successMessage = model->statusMessage = "former";
    QSignalSpy states(model.get(), &VaultViewModel::stateChanged);
    start("a", "A");
    expectRefused("The two new passwords don't match.");
    EXPECT_EQ(states.count(), 1);
}

TEST_F(ChangeActionTest, SealsTheKeyUnderTheNewPassword) {
    seal("secret");
    start("next", "next");
    tasks.finish();
    expectIdle("", "Password changed. Use your new password from now on. Your recovery key still "
                   "works.");
    expectWiped();
    EXPECT_TRUE(model->changeImageURL.isEmpty());
    EXPECT_EQ(model->statusMessage, "Changing password…");
    EXPECT_TRUE(unseals("next"));
}

TEST_F(ChangeActionTest, TheRecoveryKeyStandsInForTheCurrentPassword) {
    model->changeUseRecovery = true;
    start("next", "next");
    model->isBusy = false;
    tasks.finish();
    expectError("Invalid recovery key. Check that you typed it correctly.");
    EXPECT_TRUE(model->changeUseRecovery) << "for another try";
    fillSecrets();
    model->changeRecoveryKey = "OR3WK3TUPEQGE6LUMVZSA33GEBVWK6JB";
    model->performChangePassword();
    tasks.finish();
    EXPECT_EQ(model->errorMessage, "");
    EXPECT_FALSE(model->changeUseRecovery);
    EXPECT_TRUE(unseals("secret"));
}

TEST_F(ChangeActionTest, FailureKeepsTheItemForAnotherTry) {
    seal("other");
    start("next", "next");
    tasks.finish();
    expectError("Wrong password.");
    EXPECT_EQ(model->changeImageURL, itemURL);
    EXPECT_TRUE(unseals("other"));
}

// Closing

class CloseActionTest : public VaultViewModelFixture {
protected:
    void close() {
        shown.clear();
        fillSecrets();
        model->performClose();
        tasks.finish();
    }
    void expectClosed() const {
        expectIdle("", "Locked and ejected.");
        EXPECT_EQ(model->openedMountPoint, "");
        EXPECT_FALSE(model->openMountInfo.has_value());
        EXPECT_TRUE(model->openImageURL.isEmpty());
    }
};

TEST_F(CloseActionTest, EjectsWhatIsOpen) {
    open();
    close();
    expectClosed();
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    EXPECT_EQ(model->openPassword, "secret") << "a close has no passwords to wipe";
}

TEST_F(CloseActionTest, EjectsByTheMountPointWhenThatIsAllThatIsKnown) {
    model->openImageURL = itemURL;
    model->openedMountPoint = "/volumes/Dócs";
    close();
    expectClosed();
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /volumes/Dócs");
}

TEST_F(CloseActionTest, ReportsFractionAndStep) {
    open();
    close();
    EXPECT_THAT(shown, ElementsAre(Pair(-1, "Closing…"), Pair(-1, "Closing the vault…"),
                                   Pair(1.0, "Closed."), Pair(-1, "Closed.")));
}

TEST_F(CloseActionTest, FailureKeepsItOpen) {
    open();
    tools.play("hdiutil", "detach", "echo stuck >&2; exit 1");
    close();
    expectError("Couldn't eject the volume.\nstuck");
    EXPECT_EQ(model->openedMountPoint.toStdString(), tools.mountPoint());
    EXPECT_TRUE(model->openMountInfo.has_value());
    EXPECT_EQ(model->openImageURL, itemURL);
    EXPECT_THAT(shown, testing::Not(testing::Contains(Status(1.0, "Closed."))));
    tools.play("hdiutil", "detach", "true");
    close();
    expectClosed();
}

TEST_F(CloseActionTest, WhatWasOpenedBeforeIsStillToBeClosed) {
    open();
    fs::create_directory(tools.folder() / "second");
    tools.answerAttach("<key>system-entities</key><array><dict><key>dev-entry</key>"
                       "<string>/dev/disk5</string><key>mount-point</key><string>" +
                       (tools.folder() / "second").string() + "</string></dict></array>");
    open();
    EXPECT_EQ(model->openedMountPoint.toStdString(), tools.folder() / "second");
    close();
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk5");
    EXPECT_EQ(model->openedMountPoint.toStdString(), tools.mountPoint());
    close();
    expectClosed();
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
}

TEST_F(CloseActionTest, WhatAnotherProgramEjectedIsForgotten) {
    open();
    model->volumeUnmounted("/somewhere/else");
    EXPECT_EQ(model->openedMountPoint.toStdString(), tools.mountPoint());
    QSignalSpy states(model.get(), &VaultViewModel::stateChanged);
    model->volumeUnmounted(tools.mountPoint());
    EXPECT_EQ(model->openedMountPoint, "");
    EXPECT_FALSE(model->openMountInfo.has_value());
    EXPECT_EQ(states.count(), 1);
}

TEST_F(CloseActionTest, AnUnmountDuringAnotherOperationIsNotMissed) {
    open();
    model->lockFolderURL = docsURL;
    model->performLock();
    model->volumeUnmounted(tools.mountPoint());
    EXPECT_EQ(model->openedMountPoint, "");
    tasks.finish();
}

TEST_F(CloseActionTest, AnUnmountBeforeItsEndChangesNothing) {
    model->openedMountPoint = "/volumes/first";
    model->openMountInfo = MountInfo{std::nullopt, "/volumes/first"};
    open();
    model->performClose();
    model->volumeUnmounted(tools.mountPoint());
    tasks.finish();
    expectIdle("", "Locked and ejected.");
    EXPECT_EQ(model->openedMountPoint, "/volumes/first");
}

TEST_F(CloseActionTest, OnceClosedNothingIsLeftToClose) {
    open();
    close();
    model->performClose();
    EXPECT_TRUE(tasks.started.empty());
    EXPECT_EQ(model->successMessage, "Locked and ejected.");
}

} // namespace
