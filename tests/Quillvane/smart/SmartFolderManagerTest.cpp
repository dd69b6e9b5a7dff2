#include "tests/Quillvane/smart/SmartFolderFixture.h"

#include <QCoreApplication>
#include <QSignalSpy>

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class SmartFolderManagerTest : public SmartFolderFixture {};

TEST_F(SmartFolderManagerTest, BeginsWithNothing) {
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_EQ(manager->timeoutMinutes(), 5);
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_EQ(manager->errorMessage(), "");
    EXPECT_EQ(manager->successMessage(), "");
    EXPECT_FALSE(manager->recoveryKeyToShow());
    EXPECT_EQ(clock.interval, 20s);
    EXPECT_THAT(persistedNames(), ElementsAre("nothing")) << "nothing is written at the start";
}

TEST_F(SmartFolderManagerTest, OpensInPlace) {
    const fs::path item = makeItem("My Döcs");
    manager->activate(item, password());
    EXPECT_TRUE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "Opening My Döcs in place…");
    EXPECT_THAT(manager->active(), IsEmpty());

    tasks.finish();
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_EQ(manager->successMessage(),
              "\"My Döcs\" opened in place. It closes by itself after 5 min of inactivity, or on "
              "screen lock / logout.");
    const std::string place = folder / "My Döcs";
    EXPECT_THAT(manager->active(), ElementsAre(SmartFolderManager::Active{
                                       place, "My Döcs", item, place, clock.time, clock.time}));
    EXPECT_TRUE(isOpen(place));
    EXPECT_TRUE(VaultEngine::isHidden(item));
    EXPECT_THAT(*store->read(), ElementsAre(SmartFolderStore::Record{"My Döcs", item, place}));
}

TEST_F(SmartFolderManagerTest, TellsTheTimeoutThatIsSet) {
    manager->setTimeoutMinutes(30);
    open(makeItem("Docs"));
    EXPECT_TRUE(manager->successMessage().contains("after 30 min of"));
}

TEST_F(SmartFolderManagerTest, KeepsTheOrderOfOpening) {
    open(makeItem("Zoo"));
    open(makeItem("Ark"));
    EXPECT_THAT(names(), ElementsAre("Zoo", "Ark"));
    EXPECT_THAT(persistedNames(), ElementsAre("Zoo", "Ark"));
    const QAbstractItemModel* model = manager->activeModel();
    ASSERT_EQ(model->rowCount(), 2);
    EXPECT_EQ(model->index(1, 0).data(SmartFolderList::nameRole).toString(), "Ark");
}

TEST_F(SmartFolderManagerTest, RefusesANameThatIsOpenInAnyDirectory) {
    open(makeItem("Docs"));
    const fs::path other = makeItem("Docs", "elsewhere");
    manager->activate(other, password());
    EXPECT_EQ(manager->errorMessage(), "\"Docs\" is already open.");
    EXPECT_FALSE(manager->isBusy());
    EXPECT_THAT(tasks.started, IsEmpty());
    EXPECT_FALSE(VaultEngine::isHidden(other));
}

TEST_F(SmartFolderManagerTest, RefusesANameThatIsBeingOpened) {
    const fs::path item = makeItem("Docs");
    manager->activate(item, password());
    manager->activate(item, password());
    EXPECT_EQ(manager->errorMessage(), "\"Docs\" is already open.");
    EXPECT_EQ(tasks.started.size(), 1U);
}

TEST_F(SmartFolderManagerTest, TellsWhyOpeningFailed) {
    const fs::path item = makeItem("Docs");
    tools.play("hdiutil", "attach", "echo 'attach failed - Authentication error' >&2; exit 1");
    manager->activate(item, password());
    tasks.finish();
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_EQ(manager->errorMessage().toStdString(), VaultError::wrongPassword().what());
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), ElementsAre("nothing"));
    EXPECT_FALSE(VaultEngine::isHidden(item));

    manager->activate(folder / "missing.quillvane", password());
    EXPECT_EQ(manager->errorMessage(), "") << "a new operation clears the message";
    tasks.finish();
    EXPECT_EQ(manager->errorMessage().toStdString(), VaultError::sourceMissing().what());
}

TEST_F(SmartFolderManagerTest, CreatesASmartFolder) {
    fs::create_directory(folder / "Docs");
    writeFile(folder / "Docs/letter", "private");
    QStringList statuses;
    QObject::connect(manager.get(), &SmartFolderManager::statusMessageChanged,
                     [&] { statuses.append(manager->statusMessage()); });
    tools.play("hdiutil", "attach", "cat \"$here/attached.plist\"");
    tools.play("hdiutil", "detach", "true");

    manager->createSmartFolder(folder / "Docs", Secret("secret"), Secret("secret"));
    EXPECT_TRUE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "Preparing…");
    tasks.finish();
    EXPECT_EQ(manager->errorMessage(), "");
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->successMessage(),
              "Smart folder created:\nDocs.quillvane\n\nIt now looks like a folder: double-click, "
              "enter your password, and it opens in place — then closes itself.");
    ASSERT_TRUE(manager->recoveryKeyToShow());
    EXPECT_EQ(manager->recoveryKeyToShow()->size(), 39U);
    EXPECT_GT(statuses.size(), 3) << "progress is shown";
    EXPECT_EQ(statuses.last(), "");
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), ElementsAre("nothing"));

    manager->clearRecoveryKeyToShow();
    EXPECT_FALSE(manager->recoveryKeyToShow());
}

TEST_F(SmartFolderManagerTest, TellsWhyCreatingFailed) {
    fs::create_directory(folder / "Docs");
    manager->createSmartFolder(folder / "Docs", Secret("secret"), Secret("Secret"));
    tasks.finish();
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->errorMessage().toStdString(), VaultError::passwordMismatch().what());
    EXPECT_FALSE(manager->recoveryKeyToShow());
    EXPECT_TRUE(fs::exists(folder / "Docs"));
}

TEST_F(SmartFolderManagerTest, WhatComesBackAfterItsEndDoesNothing) {
    manager->activate(makeItem("Docs"), password());
    manager.reset();
    tasks.finish();
    EXPECT_FALSE(store->read()) << "nobody wrote";
    clock.tick();
}

TEST_F(SmartFolderManagerTest, FindsAFolderStillOpenAtTheNextStart) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    clock.advance(1h);
    start();
    EXPECT_THAT(manager->active(), ElementsAre(SmartFolderManager::Active{
                                       place, "Docs", item, place, clock.time, clock.time}));
    EXPECT_TRUE(VaultEngine::isHidden(item));
    EXPECT_THAT(persistedNames(), ElementsAre("Docs"));

    clock.advance(5min);
    clock.tick();
    tasks.finish();
    EXPECT_FALSE(isOpen(place)) << "it is closed like any other";
    EXPECT_FALSE(VaultEngine::isHidden(item));
}

TEST_F(SmartFolderManagerTest, RepairsAFolderThatIsGoneAtTheNextStart) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    const fs::path kept = open(makeItem("Kept"));
    manager.reset();
    ::umount(place.c_str());
    ASSERT_TRUE(VaultEngine::isHidden(item));
    start();
    EXPECT_THAT(names(), ElementsAre("Kept"));
    EXPECT_THAT(persistedNames(), ElementsAre("Kept"));
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(place));
    EXPECT_TRUE(isOpen(kept));
}

TEST_F(SmartFolderManagerTest, NeverDeletesAFolderWithSomethingInIt) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    manager.reset();
    ::umount(place.c_str());
    writeFile(place / "late", "written after the volume was gone");
    start();
    EXPECT_TRUE(fs::exists(place / "late"));
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_THAT(manager->active(), IsEmpty());
}

TEST_F(SmartFolderManagerTest, LeavesAListAloneThatItDoesNotUnderstand) {
    preferences->setValue("quillvane.smartActive.v1/size", 1);
    preferences->setValue("quillvane.smartActive.v1/1/name", QVariantList{1, 2});
    preferences->sync();
    start();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_EQ(preferences->value("quillvane.smartActive.v1/1/name").toList().size(), 2);
}

TEST_F(SmartFolderManagerTest, SkipsADictionaryThatLacksAMember) {
    const fs::path item = makeItem("Docs");
    open(item);
    manager.reset();
    preferences->remove("quillvane.smartActive.v1/1/name");
    preferences->sync();
    start();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), IsEmpty());
    EXPECT_EQ(preferences->value("quillvane.smartActive.v1/size").toInt(), 0);
}

TEST_F(SmartFolderManagerTest, LeavesAnotherProgramsFolderToIt) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    FakeClock otherClock;
    QSettings sameFile(preferences->fileName(), QSettings::IniFormat);
    SmartFolderStore otherStore(sameFile, folder.path());
    SmartFolderManager other(events, tasks, otherClock, otherStore);
    EXPECT_THAT(other.active(), IsEmpty());

    other.activate(makeItem("Other"), password());
    tasks.finish();
    EXPECT_THAT(persistedNames(), ElementsAre("Docs", "Other"));
    manager->attemptClose(entry("Docs"));
    tasks.finish();
    EXPECT_THAT(persistedNames(), ElementsAre("Other"));
    other.attemptClose(other.active().front());
    tasks.finish();
    EXPECT_THAT(persistedNames(), IsEmpty());
    EXPECT_FALSE(isOpen(place));
}

TEST_F(SmartFolderManagerTest, TellsWhenTheListCannotBeSaved) {
    const fs::path item = makeItem("Docs");
    store.reset();
    manager.reset();
    preferences = std::make_unique<QSettings>("/proc/none/preferences.conf", QSettings::IniFormat);
    store = std::make_unique<SmartFolderStore>(*preferences, folder.path());
    manager = std::make_unique<SmartFolderManager>(events, tasks, clock, *store);
    manager->activate(item, password());
    tasks.finish();
    EXPECT_EQ(manager->errorMessage(), "The list of open Smart Folders couldn't be saved.");
    EXPECT_THAT(names(), ElementsAre("Docs"));
}

TEST_F(SmartFolderManagerTest, ClosesEverythingWhenTheProgramEnds) {
    const fs::path item = makeItem("Docs");
    const fs::path first = open(item);
    const fs::path second = open(makeItem("Photos"));
    QSignalSpy changes(manager->activeModel(), &QAbstractItemModel::rowsRemoved);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
    QCoreApplication::exec();
    EXPECT_FALSE(isOpen(first));
    EXPECT_FALSE(isOpen(second));
    EXPECT_FALSE(fs::exists(first));
    EXPECT_TRUE(VaultEngine::isHidden(item)) << "the next start shows it again";
    EXPECT_EQ(changes.count(), 0);
    EXPECT_THAT(persistedNames(), ElementsAre("Docs", "Photos"));

    start();
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_THAT(persistedNames(), IsEmpty());
}

TEST_F(SmartFolderManagerTest, AtTheEndAFailureDoesNotKeepTheOthersOpen) {
    const fs::path busy = open(makeItem("Busy"));
    const fs::path idle = open(makeItem("Idle"));
    std::ofstream writer(busy / "file");
    manager->closeAllSynchronouslyBestEffort();
    EXPECT_TRUE(isOpen(busy));
    EXPECT_FALSE(isOpen(idle));
    EXPECT_EQ(manager->errorMessage(), "");
}

TEST_F(SmartFolderManagerTest, AtTheEndWhatIsBeingOpenedIsClosedToo) {
    manager->activate(makeItem("Docs"), password());
    manager->closeAllSynchronouslyBestEffort();
    EXPECT_EQ(count("hdiutil attach"), 1);
    EXPECT_EQ(count("hdiutil detach"), 1);
    EXPECT_FALSE(isOpen(folder / "Docs"));
}

TEST_F(SmartFolderManagerTest, AtTheEndACreationIsGivenUp) {
    fs::create_directory(folder / "Docs");
    writeFile(folder / "Docs/letter", "private");
    manager->createSmartFolder(folder / "Docs", Secret("secret"), Secret("secret"));
    manager->closeAllSynchronouslyBestEffort();
    EXPECT_TRUE(fs::exists(folder / "Docs/letter"));
    EXPECT_FALSE(fs::exists(folder / "Docs.quillvane"));
}

} // namespace
