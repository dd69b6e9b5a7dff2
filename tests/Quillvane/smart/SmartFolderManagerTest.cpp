#include "Quillvane/KeyStore.h"
#include "Quillvane/VaultKeys.h"
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
    EXPECT_THAT(persistedNames(), IsEmpty());
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
    EXPECT_THAT(persistedNames(), ElementsAre("Docs")) << "for the next start to look after";
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
    const auto preferences = preferencesIn("preferences.conf")();
    preferences->setValue("quillvane.smartActive.v1/size", 1);
    preferences->setValue("quillvane.smartActive.v1/1/name", QVariantList{1, 2});
    preferences->sync();
    start();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_EQ(preferences->value("quillvane.smartActive.v1/1/name").toList().size(), 2);
}

TEST_F(SmartFolderManagerTest, SkipsADictionaryThatLacksAMember) {
    open(makeItem("Docs"));
    manager.reset();
    const auto preferences = preferencesIn("preferences.conf")();
    preferences->remove("quillvane.smartActive.v1/1/name");
    preferences->sync();
    start();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), IsEmpty());
    EXPECT_TRUE(store->read()) << "an empty list is written too";
}

TEST_F(SmartFolderManagerTest, AnItemIsKnownWhileItIsBeingOpened) {
    const fs::path item = makeItem("Docs");
    bool known = false;
    tasks.beforeWork = [&] { known = persistedNames() == std::vector<std::string>{"Docs"}; };
    open(item);
    EXPECT_TRUE(known);
}

TEST_F(SmartFolderManagerTest, AProgramKilledWhileOpeningLeavesNothingHidden) {
    const fs::path item = makeItem("Docs");
    manager->activate(item, password());
    // What the engine does until the tool is called.
    static_cast<void>(Platform::setHidden(item, true));
    fs::create_directory(folder / "Docs");
    start();
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(folder / "Docs"));
    EXPECT_THAT(persistedNames(), IsEmpty());
}

TEST_F(SmartFolderManagerTest, TwoProgramsDoNotOpenOneItem) {
    const fs::path item = makeItem("Docs");
    FakeClock otherClock;
    FakeTasks otherTasks;
    SmartFolderStore otherStore(preferencesIn("preferences.conf"), folder.path());
    SmartFolderManager other(events, otherTasks, otherClock, otherStore);
    other.activate(item, password());
    manager->activate(item, password());
    EXPECT_EQ(manager->errorMessage(), "\"Docs\" is already open.");
    EXPECT_THAT(tasks.started, IsEmpty());
    otherTasks.finish();
    EXPECT_TRUE(VaultEngine::isHidden(item));

    other.attemptClose(other.active().front());
    otherTasks.finish();
    open(item);
    EXPECT_THAT(names(), ElementsAre("Docs")) << "the other one has let go of it";
}

TEST_F(SmartFolderManagerTest, OneItemHasOnePath) {
    const fs::path item = makeItem("Docs", "real");
    fs::create_directory_symlink(folder / "real", folder / "link");
    manager->activate(folder / "link/Docs.quillvane", password());
    tasks.finish();
    EXPECT_EQ(entry("Docs").lockedPath, item);
    EXPECT_EQ(entry("Docs").mountPath, folder / "real/Docs");
}

TEST_F(SmartFolderManagerTest, LeavesAnotherProgramsFolderToIt) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    FakeClock otherClock;
    SmartFolderStore otherStore(preferencesIn("preferences.conf"), folder.path());
    SmartFolderManager other(events, tasks, otherClock, otherStore);
    EXPECT_THAT(other.active(), IsEmpty());

    other.activate(makeItem("Other"), password());
    tasks.finish();
    EXPECT_THAT(persistedNames(), ElementsAre("Docs", "Other"));
    other.closeAll("test");
    emit events.volumeUnmounted(place);
    tasks.finish();
    EXPECT_TRUE(isOpen(place)) << "not the other one's to close";
    EXPECT_THAT(persistedNames(), ElementsAre("Docs"));
    other.activate(folder / "Other.quillvane", password());
    tasks.finish();
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
    manager.reset();
    // A directory in the file's place, and then not any more.
    fs::create_directory(folder / "blocked.conf");
    store = std::make_unique<SmartFolderStore>(preferencesIn("blocked.conf"), folder.path());
    manager = std::make_unique<SmartFolderManager>(events, tasks, clock, *store);
    manager->activate(item, password());
    tasks.finish();
    EXPECT_EQ(manager->errorMessage(), "The list of open Smart Folders couldn't be saved.");
    EXPECT_THAT(names(), ElementsAre("Docs"));

    fs::remove(folder / "blocked.conf");
    open(makeItem("Photos"));
    EXPECT_THAT(persistedNames(), ElementsAre("Docs", "Photos"));
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

TEST_F(SmartFolderManagerTest, AKeyThatIsBeingDerivedIsGivenUp) {
    const fs::path item = makeItem("Docs");
    KeyStore::write(VaultKeys::seal(Secret(20), Secret("secret")), item);
    manager->activate(item, password());
    manager->cancelOpening();
    tasks.finish();
    EXPECT_EQ(manager->errorMessage(), "Cancelled. Nothing was changed.");
    EXPECT_EQ(count("hdiutil"), 0);
    EXPECT_THAT(persistedNames(), IsEmpty());
    manager->cancelOpening();
    EXPECT_TRUE(isOpen(open(item))) << "only what was being opened then";
}

TEST_F(SmartFolderManagerTest, AtTheEndAKeyIsNotWaitedFor) {
    const fs::path item = makeItem("Docs");
    KeyStore::write(VaultKeys::seal(Secret(20), Secret("secret")), item);
    manager->activate(item, password());
    manager->closeAllSynchronouslyBestEffort();
    EXPECT_EQ(count("hdiutil"), 0);
    EXPECT_THAT(manager->active(), IsEmpty());
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
