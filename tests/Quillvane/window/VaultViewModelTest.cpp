#include "Quillvane/ThreadTasks.h"
#include "tests/Quillvane/window/VaultViewModelFixture.h"

#include <QMetaEnum>
#include <QMetaProperty>

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <string_view>
#include <thread>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using VaultViewModelTest = VaultViewModelFixture;

TEST_F(VaultViewModelTest, BeginsEmpty) {
    const QMetaObject& type = VaultViewModel::staticMetaObject;
    for (int i = type.propertyOffset(); i < type.propertyCount(); ++i) {
        const QMetaProperty property = type.property(i);
        EXPECT_TRUE(property.hasNotifySignal()) << property.name();
        const QVariant value = property.read(model.get());
        if (property.name() == std::string_view("progressFraction"))
            EXPECT_EQ(value.toDouble(), -1);
        else if (value.typeId() == QMetaType::QUrl)
            EXPECT_TRUE(value.toUrl().isEmpty()) << property.name();
        else if (value.typeId() == QMetaType::QString)
            EXPECT_EQ(value.toString(), "") << property.name();
        else
            EXPECT_EQ(value.toInt(), 0) << property.name();
    }
    EXPECT_FALSE(model->openMountInfo.has_value());
}

TEST_F(VaultViewModelTest, ListsTheModesInTheirOrder) {
    const auto modes = QMetaEnum::fromType<VaultViewModel::Mode>();
    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(modes.keyCount()));
    for (int i = 0; i < modes.keyCount(); ++i) names.emplace_back(modes.key(i));
    EXPECT_THAT(names, ElementsAre("lock", "open", "remove", "change", "smart"));
}

TEST_F(VaultViewModelTest, AnnouncesWhatTheWindowWrites) {
    QSignalSpy changes(model.get(), &VaultViewModel::formChanged);
    model->setProperty("lockPassword", "a");
    model->setProperty("lockPassword", "a");
    EXPECT_EQ(changes.count(), 1);
    EXPECT_EQ(model->lockPassword, "a");
}

// Choosing

struct Choice {
    void (VaultViewModel::*choose)();
    FakePanels::Kind kind;
    QString title;
    QUrl VaultViewModel::*target;
};
const Choice choices[] = {
    {&VaultViewModel::chooseFolderToLock, FakePanels::Kind::folder, "Choose the folder to protect",
     &VaultViewModel::lockFolderURL},
    {&VaultViewModel::chooseImageToOpen, FakePanels::Kind::item, "Choose a locked item to open",
     &VaultViewModel::openImageURL},
    {&VaultViewModel::chooseImageToRemove, FakePanels::Kind::item,
     "Choose a locked item to turn back into a folder", &VaultViewModel::removeImageURL},
    {&VaultViewModel::chooseImageToChange, FakePanels::Kind::item, "Choose a locked item",
     &VaultViewModel::changeImageURL},
    {&VaultViewModel::chooseSmartCreateFolder, FakePanels::Kind::folder,
     "Choose a folder to make smart", &VaultViewModel::smartCreateFolderURL},
    {&VaultViewModel::chooseSmartActivateImage, FakePanels::Kind::item, "Choose a smart folder",
     &VaultViewModel::smartActivateURL},
};

TEST_F(VaultViewModelTest, PanelsSetTheirOwnFieldAlone) {
    for (const Choice& choice : choices) {
        std::invoke(choice.choose, *model);
        EXPECT_EQ(panels.kind, choice.kind);
        EXPECT_EQ(panels.title, choice.title);
        QSignalSpy changes(model.get(), &VaultViewModel::formChanged);
        const QUrl odd("file:///a%FF/../b%20");
        panels.chosen(odd);
        EXPECT_EQ(changes.count(), 1);
        for (const Choice& other : choices)
            EXPECT_EQ(std::invoke(other.target, *model), &other == &choice ? odd : QUrl());
        std::invoke(choice.target, *model).clear();
    }
}

TEST_F(VaultViewModelTest, ACancelledPanelClearsTheMessagesAlone) {
    for (const Choice& choice : choices) {
        model->errorMessage = "error";
        model->successMessage = "success";
        model->statusMessage = "status";
        model->lockPassword = "secret";
        std::invoke(choice.target, *model) = itemURL;
        QSignalSpy changes(model.get(), &VaultViewModel::stateChanged);
        std::invoke(choice.choose, *model);
        EXPECT_EQ(model->errorMessage + model->successMessage + model->statusMessage, "");
        EXPECT_GE(changes.count(), 1);
        EXPECT_EQ(std::invoke(choice.target, *model), itemURL);
        EXPECT_EQ(model->lockPassword, "secret");
    }
}

TEST_F(VaultViewModelTest, APanelThatOutlivesTheWindowDoesNothing) {
    model->chooseFolderToLock();
    model.reset();
    panels.chosen(docsURL);
}

// What all actions share

TEST_F(VaultViewModelTest, NothingChosenDoesNothing) {
    fillSecrets();
    model->successMessage = "as before";
    QSignalSpy changes(model.get(), &VaultViewModel::stateChanged);
    model->performLock();
    model->performOpen();
    model->performRemove();
    model->performChangePassword();
    model->performClose();
    EXPECT_TRUE(tasks.started.empty());
    EXPECT_EQ(changes.count(), 0);
    EXPECT_EQ(model->successMessage, "as before");
    EXPECT_EQ(model->lockPassword, "secret");
}

TEST_F(VaultViewModelTest, EveryActionBeginsBusyWithItsText) {
    const std::pair<void (VaultViewModel::*)(), const char*> actions[] = {
        {&VaultViewModel::performLock, "Preparing…"},
        {&VaultViewModel::performOpen, "Opening…"},
        {&VaultViewModel::performRemove, "Preparing…"},
        {&VaultViewModel::performChangePassword, "Changing password…"},
        {&VaultViewModel::performClose, "Closing…"}};
    model->lockFolderURL = docsURL;
    model->openImageURL = model->removeImageURL = model->changeImageURL = itemURL;
    model->openedMountPoint = "/volume";
    fillSecrets();
    for (const auto& [action, text] : actions) {
        model->errorMessage = model->successMessage = "former";
        model->progressFraction = 0.5;
        std::invoke(action, *model);
        EXPECT_TRUE(model->isBusy);
        EXPECT_FALSE(model->progressFraction.has_value());
        EXPECT_EQ(model->statusMessage, QString(text));
        EXPECT_EQ(model->errorMessage + model->successMessage, "");
        EXPECT_EQ(model->lockPassword, "secret") << "wiped at the end only";
        model->isBusy = false;
    }
    EXPECT_EQ(tasks.started.size(), 5U) << "a second start is not refused";
    tasks.started.clear();
}

TEST_F(VaultViewModelTest, ASecondStartRunsToo) {
    model->openImageURL = itemURL;
    model->openPassword = "a";
    model->performOpen();
    model->openPassword = "b";
    model->performOpen();
    tasks.runNext();
    EXPECT_FALSE(model->isBusy);
    EXPECT_EQ(model->openPassword, "");
    tasks.runNext();
    const auto calls = tools.calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0].standardInput, "a\n");
    EXPECT_EQ(calls[2].standardInput, "b\n") << "the values at its start count";
}

TEST_F(VaultViewModelTest, ANameThatIsNoFileIsAnErrorLikeOthers) {
    fillSecrets();
    model->lockFolderURL = model->removeImageURL = QUrl("https://example.org/a");
    model->performLock();
    model->performRemove();
    tasks.runNext();
    expectError("Invalid argument");
    tasks.runNext();
    expectError("Invalid argument");
}

TEST_F(VaultViewModelTest, WhatArrivesAfterTheWindowWentIsDropped) {
    open();
    shown.clear();
    model->performClose();
    model.reset();
    tasks.finish();
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4")
        << "the work itself goes on";
    EXPECT_THAT(shown, ElementsAre(Status(-1, "Closing…")));
}

TEST_F(VaultViewModelTest, TheWindowMayGoWhileAThreadWorks) {
    ThreadTasks threads;
    tools.play("hdiutil", "detach",
               "touch \"$here/begun\"; while [ ! -e \"$here/go\" ]; do sleep 0.01; done\n"
               "touch \"$here/closed\"");
    auto other = std::make_unique<VaultViewModel>(threads, panels);
    QSignalSpy changes(other.get(), &VaultViewModel::stateChanged);
    other->openedMountPoint = "/volumes/Docs";
    other->performClose();
    while (!fs::exists(tools.folder() / "begun"))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const auto before = changes.count();
    other.reset();
    writeFile(tools.folder() / "go", "");
    threads.finish();
    EXPECT_EQ(changes.count(), before);
    EXPECT_TRUE(fs::exists(tools.folder() / "closed"));
}

TEST_F(VaultViewModelTest, ThreadsBringTheirResultBack) {
    ThreadTasks threads;
    VaultViewModel other(threads, panels);
    other.openImageURL = itemURL;
    other.openPassword = "secret";
    other.performOpen();
    EXPECT_TRUE(other.isBusy);
    threads.finish();
    EXPECT_FALSE(other.isBusy);
    EXPECT_EQ(other.openedMountPoint.toStdString(), tools.mountPoint());
    EXPECT_EQ(other.statusMessage, "Opened. The volume is mounted.");
}

TEST_F(VaultViewModelTest, NoBindingSeesItGo) {
    fillSecrets();
    QSignalSpy forms(model.get(), &VaultViewModel::formChanged);
    QSignalSpy states(model.get(), &VaultViewModel::stateChanged);
    model.reset();
    EXPECT_EQ(forms.count() + states.count(), 0);
}

TEST_F(VaultViewModelTest, ClearsMessages) {
    model->errorMessage = model->successMessage = model->statusMessage = "former";
    model->recoveryKeyToShow = "key";
    model->clearMessages();
    EXPECT_EQ(model->errorMessage + model->successMessage + model->statusMessage, "");
    EXPECT_EQ(model->recoveryKeyToShow, "key");
}

TEST_F(VaultViewModelTest, WipesTheSmartFolderFormsOnDemand) {
    fillSecrets();
    QSignalSpy changes(model.get(), &VaultViewModel::formChanged);
    model->wipeSmartForms();
    EXPECT_EQ(model->smartCreatePassword + model->smartCreateConfirm, "");
    EXPECT_EQ(model->smartActivatePassword + model->smartActivateRecoveryKey, "");
    EXPECT_EQ(model->lockPassword, "secret");
    EXPECT_EQ(changes.count(), 1);
}

TEST_F(VaultViewModelTest, TellsWithWhatToOpenASmartFolder) {
    model->smartActivatePassword = "password";
    model->smartActivateRecoveryKey = "key";
    EXPECT_EQ(model->smartActivateCredential().kind(), Credential::Kind::password);
    EXPECT_EQ(model->smartActivateCredential().text().text(), "password");
    model->smartActivateUseRecovery = true;
    EXPECT_EQ(model->smartActivateCredential().kind(), Credential::Kind::recoveryKey);
    EXPECT_EQ(model->smartActivateCredential().text().text(), "key");
}

} // namespace
