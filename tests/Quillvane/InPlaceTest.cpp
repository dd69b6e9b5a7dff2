#include "InPlaceFixture.h"

#include "Quillvane/OperationCancelled.h"
#include "Quillvane/RecoveryError.h"
#include "tests/support/FuseMount.h"
#include "tests/support/OrdinaryUser.h"

#include <chrono>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace {

namespace fs = std::filesystem;
using Call = RecordingTools::Call;
using Case = VaultError::Case;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class InPlaceTest : public InPlaceFixture {
protected:
    Call attachCall() const {
        return {"hdiutil",
                {"attach", "-stdinpass", "-nobrowse", "-owners", "on", "-mountpoint",
                 folder.string(), item.string()},
                "päss phrase\n"};
    }
    /// The item's volume at a place apart, from where a stand-in can mount it on the folder.
    std::unique_ptr<FuseMount> served() const {
        fs::create_directory(tools.folder() / "served");
        return std::make_unique<FuseMount>(tools.folder() / "served", item);
    }
    std::string mountItOnFolder() const {
        return "mount --bind \"$here/served\" '" + folder.string() + "'\n";
    }
    /// The tool becomes one that can be launched after `pause`.
    std::thread installAfter(std::chrono::milliseconds pause, const char* tool) {
        fs::permissions(tools.tool(tool), fs::perms::none);
        return std::thread([path = tools.tool(tool), pause] {
            std::this_thread::sleep_for(pause);
            fs::permissions(path, fs::perms::owner_all);
        });
    }
};

// Activating

TEST_F(InPlaceTest, ActivatingMountsTheItemOnItsFolderAndShowsIt) {
    const VaultEngine::SmartMount mount = activate();
    EXPECT_EQ(mount.name, "Docs");
    EXPECT_EQ(mount.lockedPath, item.string());
    EXPECT_EQ(mount.mountPath, folder.string());
    const std::vector<Call> expected{attachCall(), {"open", {folder.string()}, std::nullopt}};
    EXPECT_EQ(tools.calls(), expected);
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_FALSE(VaultEngine::isHidden(item)) << "hiding is not its business";
}

TEST_F(InPlaceTest, PathsBecomeAbsoluteAndOnlyTheLastExtensionGoes) {
    const fs::path other = place / "My – 1.tar\n.QUILLVANE";
    writeFile(other, "image");
    const fs::path former = fs::current_path();
    fs::current_path(place.path());
    const auto mount =
        VaultEngine::activateInPlace("./My – 1.tar\n.QUILLVANE/", Secret(std::string_view("p")));
    fs::current_path(former);
    EXPECT_EQ(mount.name, "My – 1.tar\n");
    EXPECT_EQ(mount.lockedPath, other.string());
    EXPECT_EQ(mount.mountPath, (place / "My – 1.tar\n").string());
    EXPECT_EQ(tools.calls().at(0).arguments.at(6), mount.mountPath);
    EXPECT_EQ(tools.calls().at(0).arguments.at(7), mount.lockedPath);
}

TEST_F(InPlaceTest, TheFolderIsMadeBeforeTheAttachWithTheUsersMask) {
    tools.play("hdiutil", "attach", "stat -c %a '" + folder.string() + "' > \"$here/mode\"");
    for (const auto& [mask, mode] : {std::pair(022U, "755\n"), {077U, "700\n"}, {0U, "777\n"}}) {
        const mode_t former = ::umask(mask);
        activate();
        ::umask(former);
        EXPECT_EQ(readFile(tools.folder() / "mode"), mode);
        fs::remove(folder);
    }
}

TEST_F(InPlaceTest, AMissingItemIsToldFirst) {
    fs::remove(item);
    fs::create_directories(folder / "full");
    EXPECT_EQ(failureKind([&] { activate(); }), Case::sourceMissing);
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InPlaceTest, AFolderWithSomethingInItIsInTheWay) {
    fs::create_directory(folder);
    writeFile(folder / ".hidden", "x");
    const auto error = failure([&] { activate(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), Case::targetFolderExists);
    EXPECT_EQ(error->errorDescription(), VaultError::targetFolderExists("Docs").errorDescription());
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_EQ(readFile(folder / ".hidden"), "x");
}

TEST_F(InPlaceTest, ALinkIsInTheWayWhereverItLeads) {
    fs::create_directory(place / "empty");
    for (const char* target : {"empty", "nowhere", "Docs.quillvane"}) {
        fs::create_symlink(target, folder);
        EXPECT_EQ(failureKind([&] { activate(); }), Case::targetFolderExists) << target;
        EXPECT_TRUE(fs::is_symlink(folder));
        fs::remove(folder);
    }
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InPlaceTest, ALinkThatTakesTheFoldersPlaceMeanwhileIsNotAnOpening) {
    fs::create_directory(place / "elsewhere");
    tools.play("hdiutil", "attach",
               "rmdir '" + folder.string() + "'; ln -s elsewhere '" + folder.string() + "'");
    struct stat image {};
    ASSERT_EQ(::stat(item.c_str(), &image), 0);
    const FuseMount mount(place / "elsewhere", item, ImageIdentity{image.st_dev, image.st_ino});
    SKIP_UNLESS(mount);
    EXPECT_EQ(failureKind([&] { activate(); }), Case::targetFolderExists);
    ASSERT_EQ(tools.calls().size(), 2U);
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach " + (place / "elsewhere").string());
    EXPECT_TRUE(fs::is_symlink(folder));
}

TEST_F(InPlaceTest, AnythingElseIsForTheToolToRefuse) {
    writeFile(folder, "file");
    tools.play("hdiutil", "attach", "echo 'hdiutil: attach failed - Not a directory' >&2; exit 1");
    EXPECT_EQ(failureKind([&] { activate(); }), Case::attachFailed);
    EXPECT_EQ(tools.calls().size(), 1U);
    EXPECT_EQ(readFile(folder), "file");
}

TEST_F(InPlaceTest, AnEmptyFolderIsUsedAndStays) {
    fs::create_directory(folder);
    fs::permissions(folder, static_cast<fs::perms>(0710));
    activate();
    EXPECT_EQ(tools.calls().size(), 2U);
    tools.play("hdiutil", "attach", "echo no >&2; exit 1");
    EXPECT_EQ(failureKind([&] { activate(); }), Case::attachFailed);
    ASSERT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(fs::status(folder).permissions(), static_cast<fs::perms>(0710));
}

TEST_F(InPlaceTest, AFolderThatCannotBeMadeIsAFileSystemError) {
    fs::permissions(place.path(), static_cast<fs::perms>(0555));
    fs::permissions(tools.folder(), static_cast<fs::perms>(0777));
    EXPECT_TRUE(asOrdinaryUser(place.path(), [&] {
        try {
            activate();
        } catch (const fs::filesystem_error& error) {
            return error.code() == std::errc::permission_denied && error.path1() == folder &&
                   tools.calls().empty();
        }
        return false;
    }));
    fs::permissions(place.path(), fs::perms::owner_all);
}

TEST_F(InPlaceTest, WhatTheToolSaysDecidesTheError) {
    for (const char* words : {"Authentication error", "AUTHENTICATION ERROR", "bad Passphrase",
                              "image corrupt", "it is CORRUPTED."}) {
        tools.play("hdiutil", "attach", "echo \"hdiutil: " + std::string(words) + "\" >&2; exit 1");
        EXPECT_EQ(failureKind([&] { activate(); }), Case::wrongPassword) << words;
        EXPECT_EQ(entries(), closed);
    }
    tools.play("hdiutil", "attach", "echo corrupt; printf ' \\n no room\\n\\n' >&2; exit 7");
    auto error = failure([&] { activate(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorDescription(), VaultError::attachFailed("no room").errorDescription());
    tools.play("hdiutil", "attach", "exit 1");
    error = failure([&] { activate(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorDescription(),
              VaultError::attachFailed("(nessun dettaglio dal sistema)").errorDescription());
    for (const std::string& line : tools.commandLines()) EXPECT_TRUE(line.starts_with("hdiutil "));
    EXPECT_EQ(entries(), closed);
}

TEST_F(InPlaceTest, AMadeFolderInWhichSomethingAppearedIsKept) {
    tools.play("hdiutil", "attach", "echo x > '" + (folder / "new").string() + "'; exit 1");
    EXPECT_EQ(failureKind([&] { activate(); }), Case::attachFailed);
    EXPECT_EQ(readFile(folder / "new"), "x\n");
}

TEST_F(InPlaceTest, ALaunchIsTriedOnceMoreAndThenGivenUp) {
    fs::permissions(tools.tool("hdiutil"), fs::perms::none);
    const auto start = Clock::now();
    EXPECT_THROW(activate(), ProcessLaunchError);
    // Two runs, each of which tries its launch twice, and the pause between them.
    EXPECT_GE(Clock::now() - start, 240ms);
    EXPECT_EQ(entries(), closed);
    EXPECT_THROW(deactivate(), ProcessLaunchError);
}

TEST_F(InPlaceTest, ALaunchThatWorksTheSecondTimeIsAnOrdinaryRun) {
    // The first run gives up after 80 ms.
    std::thread installer = installAfter(110ms, "hdiutil");
    EXPECT_EQ(activate().name, "Docs");
    installer.join();
    EXPECT_EQ(tools.calls().at(0), attachCall());
    installer = installAfter(110ms, "hdiutil");
    deactivate();
    installer.join();
    EXPECT_EQ(tools.calls().size(), 3U);
}

TEST_F(InPlaceTest, AFolderThatIsNotShownIsOpenAllTheSame) {
    tools.play("open", "", "exit 1");
    EXPECT_EQ(activate().name, "Docs");
    fs::remove(folder);
    tools.uninstall("open");
    const auto start = Clock::now();
    EXPECT_EQ(openAsFolder().name, "Docs");
    EXPECT_GE(Clock::now() - start, 240ms);
    EXPECT_TRUE(VaultEngine::isHidden(item));
}

TEST_F(InPlaceTest, ADeadVolumeIsNotInTheWay) {
    fs::create_directory(folder);
    const DeadFuseMount dead(folder, item);
    SKIP_UNLESS(dead);
    activate();
    EXPECT_EQ(tools.calls().size(), 2U);
    EXPECT_TRUE(fs::is_empty(folder));
}

// Opening as a folder

TEST_F(InPlaceTest, OpeningHidesFirstAndAttachesThen) {
    const fs::path list = place / ".hidden";
    tools.play("hdiutil", "attach", "cp '" + list.string() + "' \"$here/list\"");
    const auto mount = openAsFolder();
    EXPECT_EQ(mount.mountPath, folder.string());
    EXPECT_EQ(readFile(tools.folder() / "list"), "Docs.quillvane\n");
    EXPECT_EQ(tools.calls().at(0).standardInput, "dHdlbnR5IGJ5dGVzIG9mIGtleSE=\n");
    EXPECT_EQ(readFile(list), "Docs.quillvane\n");
    EXPECT_TRUE(VaultEngine::isHidden(item));
    EXPECT_TRUE(VaultEngine::isHidden(KeyStore::path(item)));
}

TEST_F(InPlaceTest, OpeningTakesARecoveryKeyWithoutAKeyFile) {
    KeyStore::remove(item);
    VaultEngine::openAsFolder(item, Credential::recoveryKey(Secret(
                                        std::string_view("or3wk3tu peqge6lu mvzsa33g ebvwk6jb"))));
    EXPECT_EQ(tools.calls().at(0).standardInput, "dHdlbnR5IGJ5dGVzIG9mIGtleSE=\n");
}

TEST_F(InPlaceTest, AWrongCredentialTouchesNothing) {
    EXPECT_THROW(openAsFolder("wrong"), RecoveryError);
    EXPECT_EQ(failureKind([&] { openAsFolder(""); }), Case::emptyPassword);
    EXPECT_THROW(VaultEngine::openAsFolder(item, Credential::recoveryKey(Secret())), RecoveryError);
    EXPECT_EQ(entries(), closed);
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InPlaceTest, CancelledWhileTheKeyIsDerivedItTouchesNothing) {
    Cancellation cancellation;
    cancellation.request();
    EXPECT_THROW(VaultEngine::openAsFolder(
                     item, Credential::password(Secret(std::string_view("right"))), &cancellation),
                 OperationCancelled);
    EXPECT_EQ(entries(), closed);
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(InPlaceTest, AFailedOpeningIsUndone) {
    const fs::path list = place / ".hidden";
    tools.play("hdiutil", "attach", "cp '" + list.string() + "' \"$here/list\"; exit 1");
    EXPECT_EQ(failureKind([&] { openAsFolder(); }), Case::attachFailed);
    EXPECT_EQ(readFile(tools.folder() / "list"), "Docs.quillvane\n");
    EXPECT_EQ(entries(), closed);
    writeFile(list, "other\nlast");
    EXPECT_EQ(failureKind([&] { openAsFolder(); }), Case::attachFailed);
    EXPECT_EQ(readFile(list), "other\nlast");
    fs::create_directories(folder / "full");
    EXPECT_EQ(failureKind([&] { openAsFolder(); }), Case::targetFolderExists);
    EXPECT_EQ(readFile(list), "other\nlast");
    fs::permissions(tools.tool("hdiutil"), fs::perms::none);
    fs::remove(folder / "full");
    EXPECT_THROW(openAsFolder(), ProcessLaunchError);
    EXPECT_EQ(readFile(list), "other\nlast");
}

TEST_F(InPlaceTest, AVolumeThatAKilledToolLeavesBehindIsClosed) {
    const auto volume = served();
    SKIP_UNLESS(*volume);
    tools.play("hdiutil", "attach", mountItOnFolder() + "kill -9 $$");
    tools.play("hdiutil", "detach", "umount '" + folder.string() + "'");
    EXPECT_EQ(failureKind([&] { openAsFolder(); }), Case::attachFailed);
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach " + folder.string());
    EXPECT_EQ(entries(), closed);
}

TEST_F(InPlaceTest, AVolumeThatAnotherProgramHasOpenedMeanwhileStays) {
    const auto volume = served();
    SKIP_UNLESS(*volume);
    tools.play("hdiutil", "attach",
               mountItOnFolder() + "echo 'hdiutil: attach failed - Resource busy' >&2; exit 1");
    EXPECT_EQ(failureKind([&] { openAsFolder(); }), Case::attachFailed);
    EXPECT_EQ(tools.calls().size(), 1U) << "nothing is detached";
    EXPECT_TRUE(VaultEngine::isMounted(folder));
    EXPECT_TRUE(VaultEngine::isHidden(item));
    ::umount2(folder.c_str(), MNT_DETACH);
}

TEST_F(InPlaceTest, AnItemThatIsOpenStaysHiddenWhenItIsOpenedAgain) {
    fs::create_directory(folder);
    const FuseMount mount(folder, item);
    SKIP_UNLESS(mount);
    writeFile(place / ".hidden", "Docs.quillvane\n");
    tools.play("hdiutil", "attach", "echo 'hdiutil: attach failed - Resource busy' >&2; exit 1");
    EXPECT_THROW(openAsFolder(), VaultError);
    EXPECT_TRUE(VaultEngine::isHidden(item));
    EXPECT_EQ(readFile(place / ".hidden"), "Docs.quillvane\n");
    EXPECT_TRUE(VaultEngine::isMounted(folder));
}

TEST_F(InPlaceTest, AnItemThatCannotBeHiddenOpensAllTheSame) {
    fs::create_directory(place / ".hidden");
    EXPECT_EQ(openAsFolder().name, "Docs");
    EXPECT_FALSE(VaultEngine::isHidden(item));
}

} // namespace
