#include "Quillvane/InPlaceClose.h"
#include "tests/Quillvane/smart/SmartFolderFixture.h"
#include "tests/support/FuseMount.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

const char* const inUse =
    "The folder is in use (open files): it will close automatically once it's free.";

class SmartFolderClosingTest : public SmartFolderFixture {};

TEST_F(SmartFolderClosingTest, ClosesOnRequest) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    manager->attemptClose(entry("Docs"));
    EXPECT_TRUE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "Closing Docs…");
    EXPECT_EQ(manager->successMessage(), "");

    tasks.finish();
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_EQ(manager->successMessage(), "\"Docs\" closed and encrypted.");
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), IsEmpty());
    EXPECT_FALSE(fs::exists(place));
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(folder / ".hidden"));
}

TEST_F(SmartFolderClosingTest, WhatIsSavedWhenTheVolumeIsGoneIsNotCalledEncrypted) {
    tools.play("hdiutil", "detach", "umount \"$2\" && echo private > \"$2/late\"");
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    manager->attemptClose(entry("Docs"));
    tasks.finish();
    EXPECT_EQ(manager->successMessage(), "");
    EXPECT_EQ(manager->errorMessage().toStdString(), InPlaceClosed::filesLeftText(place.string()));
    EXPECT_FALSE(manager->isBusy());
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), IsEmpty());
    EXPECT_TRUE(fs::exists(place / "late"));
    EXPECT_FALSE(VaultEngine::isHidden(item));
}

TEST_F(SmartFolderClosingTest, AFolderInUseStaysAndIsTold) {
    const fs::path place = open(makeItem("Docs"));
    std::ofstream writer(place / "file");
    clock.advance(1min);
    manager->attemptClose(entry("Docs"));
    tasks.finish();
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_EQ(manager->errorMessage(), inUse);
    EXPECT_EQ(entry("Docs").idleSince, clock.time) << "its time begins anew";
    EXPECT_LT(entry("Docs").mountedAt, clock.time);
    EXPECT_TRUE(isOpen(place));
    EXPECT_THAT(persistedNames(), ElementsAre("Docs"));
    EXPECT_TRUE(VaultEngine::isHidden(folder / "Docs.quillvane"));
}

TEST_F(SmartFolderClosingTest, AFolderInUseStaysSilentlyAfterTheTimeout) {
    const fs::path place = open(makeItem("Docs"));
    auto writer = std::make_unique<std::ofstream>(place / "file");
    clock.advance(5min);
    clock.tick();
    EXPECT_FALSE(manager->isBusy());
    tasks.finish();
    EXPECT_EQ(manager->errorMessage(), "");
    EXPECT_TRUE(isOpen(place));

    writer.reset();
    clock.advance(4min + 59s);
    tick();
    EXPECT_EQ(count("hdiutil detach"), 1) << "tried again a full time-out later";
    clock.advance(1s);
    tick();
    EXPECT_FALSE(isOpen(place));
    EXPECT_EQ(manager->successMessage(), "\"Docs\" closed and encrypted.");
}

TEST_F(SmartFolderClosingTest, AnotherFailureKeepsTheEntryAndIsTriedAtTheNextTick) {
    const fs::path place = open(makeItem("Docs"));
    const Clock::Time opened = clock.time;
    tools.play("hdiutil", "detach", "echo ' no luck ' >&2; exit 1");
    clock.advance(5min);
    tick();
    EXPECT_EQ(manager->errorMessage().toStdString(), VaultError::detachFailed("no luck").what());
    EXPECT_EQ(entry("Docs").idleSince, opened);
    clock.advance(20s);
    clock.tick();
    EXPECT_EQ(tasks.started.size(), 1U);
    tasks.finish();
    EXPECT_TRUE(isOpen(place));
}

TEST_F(SmartFolderClosingTest, ClosesAtTheFirstTickAfterTheTimeout) {
    manager->setTimeoutMinutes(2);
    open(makeItem("First"));
    clock.advance(1min);
    open(makeItem("Second"));
    clock.advance(59s);
    tick();
    EXPECT_THAT(names(), ElementsAre("First", "Second"));
    clock.advance(1s);
    tick();
    EXPECT_THAT(names(), ElementsAre("Second"));
}

TEST_F(SmartFolderClosingTest, ATimeoutOfNothingIsOneMinute) {
    for (const int minutes : {0, -3}) {
        manager->setTimeoutMinutes(minutes);
        const fs::path place = open(makeItem("Docs"));
        clock.advance(59s);
        clock.tick();
        tasks.finish();
        EXPECT_TRUE(isOpen(place));
        clock.advance(1s);
        clock.tick();
        tasks.finish();
        EXPECT_FALSE(isOpen(place));
    }
}

TEST_F(SmartFolderClosingTest, ClosesOneFolderOnceAtATime) {
    open(makeItem("Docs"));
    manager->attemptClose(entry("Docs"), true);
    manager->attemptClose(entry("Docs"));
    EXPECT_FALSE(manager->isBusy());
    clock.advance(1h);
    clock.tick();
    EXPECT_EQ(tasks.started.size(), 1U);
    tasks.finish();
    EXPECT_EQ(count("hdiutil detach"), 1);
}

TEST_F(SmartFolderClosingTest, AScreenLockClosesAllAtOnce) {
    const fs::path first = open(makeItem("First"));
    const fs::path second = open(makeItem("Second"));
    emit events.screenLocked();
    EXPECT_EQ(manager->statusMessage(), "Closing smart folders (screen lock)…");
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(tasks.started.size(), 2U);
    emit events.screenLocked();
    EXPECT_EQ(tasks.started.size(), 2U) << "a second lock starts nothing";
    tasks.finish();
    EXPECT_FALSE(isOpen(first) || isOpen(second));
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_EQ(manager->successMessage(), "\"Second\" closed and encrypted.");
}

TEST_F(SmartFolderClosingTest, ClosingByItselfDoesNotEndWhatTheUserAskedFor) {
    open(makeItem("Docs"));
    fs::create_directory(folder / "Photos");
    tools.play("hdiutil", "create", "for image; do :; done; printf image > \"$image\"");
    manager->createSmartFolder(folder / "Photos", Secret("secret"), Secret("other"));
    events.screenLocked();
    ASSERT_EQ(tasks.started.size(), 2U);
    std::swap(tasks.started[0], tasks.started[1]); // the folder is closed first
    tasks.runNext();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_TRUE(manager->isBusy());
    tasks.finish();
    EXPECT_FALSE(manager->isBusy());
    EXPECT_EQ(manager->errorMessage(), "The two passwords don't match.");
}

TEST_F(SmartFolderClosingTest, AScreenLockWithNothingOpenSaysNothing) {
    emit events.screenLocked();
    EXPECT_EQ(manager->statusMessage(), "");
    EXPECT_THAT(tasks.started, IsEmpty());
}

TEST_F(SmartFolderClosingTest, AScreenLockClosesWhatIsBeingOpened) {
    const fs::path item = makeItem("Docs");
    manager->activate(item, password());
    emit events.screenLocked();
    tasks.runNext();
    ASSERT_THAT(names(), ElementsAre("Docs"));
    ASSERT_EQ(tasks.started.size(), 1U);
    tasks.finish();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_FALSE(isOpen(folder / "Docs"));
    EXPECT_FALSE(VaultEngine::isHidden(item));

    const fs::path later = open(makeItem("Later"));
    EXPECT_TRUE(isOpen(later)) << "only what was being opened then";
}

TEST_F(SmartFolderClosingTest, ALockDuringAnOpeningThatFailsClosesNothingLater) {
    tools.play("hdiutil", "attach", "exit 1");
    manager->activate(makeItem("Docs"), password());
    emit events.screenLocked();
    tasks.finish();
    tools.play("hdiutil", "attach", "mount -t tmpfs none \"$7\"");
    EXPECT_TRUE(isOpen(open(folder / "Docs.quillvane")));
}

TEST_F(SmartFolderClosingTest, PowerOffIsHeldUpUntilAllIsClosed) {
    open(makeItem("First"));
    const fs::path busy = open(makeItem("Second"));
    std::ofstream writer(busy / "file");
    emit events.poweringOff();
    EXPECT_EQ(manager->statusMessage(), "Closing smart folders (logout / shutdown)…");
    tasks.runNext();
    EXPECT_EQ(events.readyCalls, 0);
    tasks.runNext();
    EXPECT_EQ(events.readyCalls, 1) << "a busy one does not hold it up";
    manager->attemptClose(entry("Second"));
    tasks.finish();
    EXPECT_EQ(events.readyCalls, 1);
}

TEST_F(SmartFolderClosingTest, PowerOffIsNotHeldUpByNothing) {
    emit events.poweringOff();
    EXPECT_EQ(events.readyCalls, 1);
}

TEST_F(SmartFolderClosingTest, PowerOffWaitsForWhatIsBeingOpened) {
    manager->activate(makeItem("Docs"), password());
    emit events.poweringOff();
    EXPECT_EQ(events.readyCalls, 0);
    tasks.runNext();
    EXPECT_EQ(events.readyCalls, 0);
    tasks.runNext();
    EXPECT_EQ(events.readyCalls, 1);
    EXPECT_FALSE(isOpen(folder / "Docs"));
}

TEST_F(SmartFolderClosingTest, AVolumeUnmountedFromOutsideDisappears) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    const QString told = manager->successMessage();
    ::umount(place.c_str());
    emit events.volumeUnmounted(place);
    tasks.finish();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_THAT(persistedNames(), IsEmpty());
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(place));
    EXPECT_EQ(manager->successMessage(), told) << "no message is shown";
    EXPECT_EQ(manager->errorMessage(), "");
}

TEST_F(SmartFolderClosingTest, TheTickNoticesAVolumeThatIsGone) {
    const fs::path first = open(makeItem("First"));
    const fs::path second = open(makeItem("Second"));
    ::umount(first.c_str());
    tick();
    EXPECT_THAT(names(), ElementsAre("Second"));
    EXPECT_FALSE(VaultEngine::isHidden(folder / "First.quillvane"));
    EXPECT_TRUE(isOpen(second));
}

TEST_F(SmartFolderClosingTest, AnItemThatIsGoneLeavesTheListToo) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    ::umount(place.c_str());
    fs::remove(item);
    emit events.volumeUnmounted(place);
    tasks.finish();
    EXPECT_THAT(manager->active(), IsEmpty());
}

TEST_F(SmartFolderClosingTest, AnItemInCapitalsIsShownAgain) {
    const fs::path item = folder / "Docs.QUILLVANE";
    fs::rename(makeItem("Docs"), item);
    const fs::path place = open(item);
    ASSERT_TRUE(VaultEngine::isHidden(item));
    ::umount(place.c_str());
    emit events.volumeUnmounted(place);
    tasks.finish();
    EXPECT_FALSE(VaultEngine::isHidden(item));
}

TEST_F(SmartFolderClosingTest, UnmountsOfItsOwnAreNotTakenForOthers) {
    const fs::path place = open(makeItem("Docs"));
    manager->attemptClose(entry("Docs"));
    emit events.volumeUnmounted(place);
    EXPECT_EQ(tasks.started.size(), 1U);
    EXPECT_THAT(names(), ElementsAre("Docs"));
    tasks.finish();
    EXPECT_THAT(manager->active(), IsEmpty());
}

TEST_F(SmartFolderClosingTest, AVolumeThatIsNotItsOwnIsLeftBehindInOrder) {
    const fs::path item = makeItem("Docs");
    fs::create_directory(folder / "Docs");
    static_cast<void>(Platform::setHidden(item, true));
    emit events.volumeUnmounted(folder / "Docs");
    tasks.finish();
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(folder / "Docs"));
}

TEST_F(SmartFolderClosingTest, AClockSetBackDoesNotKeepAFolderOpen) {
    const fs::path place = open(makeItem("Docs"));
    clock.advance(-24h);
    tick();
    clock.advance(5min);
    tick();
    EXPECT_FALSE(isOpen(place));
}

TEST_F(SmartFolderClosingTest, NothingIsClosedWhoseItemIsGone) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    fs::rename(item, folder / "elsewhere");
    manager->attemptClose(entry("Docs"));
    tasks.finish();
    EXPECT_TRUE(isOpen(place));
    EXPECT_TRUE(manager->errorMessage().startsWith("\"Docs.quillvane\" isn't there any more."));
    EXPECT_THAT(names(), ElementsAre("Docs"));
    manager->closeAllSynchronouslyBestEffort();
    EXPECT_TRUE(isOpen(place));

    fs::rename(folder / "elsewhere", item);
    manager->attemptClose(entry("Docs"));
    tasks.finish();
    EXPECT_FALSE(isOpen(place));
}

TEST_F(SmartFolderClosingTest, AVolumeWhoseItemIsGoneEndsTheEntryAndTidiesUp) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    int moves = 0;
    QObject::connect(manager.get(), &SmartFolderManager::moved, [&] { ++moves; });
    fs::remove(item);
    ::umount(place.c_str());
    emit events.volumeUnmounted(place);
    tasks.finish();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_EQ(moves, 1) << "whoever waits for the folder's end is told";
    EXPECT_FALSE(fs::exists(place));
    EXPECT_FALSE(fs::exists(folder / ".hidden"));
}

TEST_F(SmartFolderClosingTest, AnItemThatCannotBeShownStaysInTheList) {
    const fs::path item = makeItem("Docs");
    open(item);
    // Somebody's arrangement that we do not touch: the list cannot be changed.
    fs::rename(folder / ".hidden", folder / "list");
    fs::create_symlink("list", folder / ".hidden");
    manager->attemptClose(entry("Docs"));
    tasks.finish();
    EXPECT_THAT(manager->active(), IsEmpty());
    fs::remove(folder / ".hidden");
    fs::rename(folder / "list", folder / ".hidden");
    ASSERT_TRUE(VaultEngine::isHidden(item));
    start();
    EXPECT_FALSE(VaultEngine::isHidden(item));
}

TEST_F(SmartFolderClosingTest, AServerThatDiedIsNoticed) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    ::umount(place.c_str());
    const DeadFuseMount dead(place, item);
    ASSERT_TRUE(dead);
    tick();
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(place));
}

TEST_F(SmartFolderClosingTest, AServerThatDiedBeforeTheFolderIsClosedIsNoticed) {
    const fs::path item = makeItem("Docs");
    const fs::path place = open(item);
    ::umount(place.c_str());
    const DeadFuseMount dead(place, item);
    ASSERT_TRUE(dead);
    tools.play("hdiutil", "detach", "echo \"the volume's server has died\" >&2; exit 1");
    clock.advance(5min);
    tick();
    EXPECT_TRUE(manager->errorMessage().endsWith("the volume's server has died"));
    EXPECT_FALSE(manager->successMessage().contains("closed"));
    EXPECT_THAT(manager->active(), IsEmpty());
    EXPECT_FALSE(VaultEngine::isHidden(item));
    EXPECT_FALSE(fs::exists(place));
}

} // namespace
