#include "Quillvane/ErrorText.h"
#include "Quillvane/KeyMetadata.h"
#include "Quillvane/KeyStore.h"
#include "Quillvane/OperationNote.h"
#include "tests/Quillvane/LockFixture.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using Case = VaultError::Case;
using LockFailureTest = LockFixture;

TEST_F(LockFailureTest, PasswordsAreCheckedFirst) {
    const auto kindOf = [this](const std::string& password, const std::string& confirmation) {
        try {
            lock("/nowhere", password, confirmation);
        } catch (const VaultError& error) {
            return error.kind();
        }
        return Case::notAQuillvane;
    };
    EXPECT_EQ(kindOf("", ""), Case::emptyPassword);
    EXPECT_EQ(kindOf("", "x"), Case::emptyPassword);
    EXPECT_EQ(kindOf("a", "b"), Case::passwordMismatch);
    EXPECT_EQ(kindOf("a", "a "), Case::passwordMismatch);
    EXPECT_TRUE(reports.empty());
}

TEST_F(LockFailureTest, TheSourceMustBeAPlainFolder) {
    const auto kindOf = [this](const fs::path& source) {
        reports.clear();
        try {
            lock(source, "p", "p");
        } catch (const VaultError& error) {
            return error.kind();
        }
        return Case::notAQuillvane;
    };
    fs::create_directory_symlink(docs, parent / "link");
    fs::create_symlink("missing", parent / "dangling");
    EXPECT_EQ(kindOf(parent / "missing"), Case::sourceMissing);
    EXPECT_EQ(reports.size(), 1U);
    EXPECT_EQ(kindOf(parent / "dangling"), Case::sourceMissing);
    EXPECT_EQ(kindOf(docs / "file"), Case::notADirectory);
    for (const fs::path& source :
         {parent / "link", parent / "link/", fs::path("/"), fs::path("/proc")}) {
        EXPECT_EQ(kindOf(source), Case::sourceIsPackageOrHidden) << source;
        EXPECT_TRUE(reports.empty()) << "told before the first report";
    }
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(LockFailureTest, AFolderThatChangesBeforeItIsDeletedStays) {
    actions["Ejecting the vault…"] = [this] { writeFile(docs / "inner/deep", "saved just now"); };
    const VaultError error = lockError();
    EXPECT_EQ(error.errorDescription(),
              "Data verification failed. Your original folder was left untouched.\n"
              "\"My Docs/inner/deep\" changed while the folder was being protected.");
    EXPECT_EQ(names(), std::vector<std::string>{"My Docs"});
    EXPECT_EQ(readFile(docs / "inner/deep"), "saved just now");
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(LockFailureTest, AFolderPutInItsPlaceIsNotDeleted) {
    actions["Ejecting the vault…"] = [this] {
        fs::rename(docs, parent / "elsewhere");
        fs::create_directory(docs);
        writeFile(docs / "other", "x");
    };
    EXPECT_EQ(lockError().errorDescription(),
              "Data verification failed. Your original folder was left untouched.\n"
              "\"My Docs\" was exchanged for another folder while the folder was being "
              "protected.");
    EXPECT_EQ(names(), (std::vector<std::string>{"My Docs", "elsewhere"}));
    EXPECT_EQ(readFile(docs / "other"), "x");
}

TEST_F(LockFailureTest, AFileThatSomebodyWritesToStopsItAtOnce) {
    std::ofstream writer(docs / "file", std::ios::app);
    EXPECT_EQ(lockError().errorDescription(),
              "Data verification failed. Your original folder was left untouched.\n"
              "\"My Docs/file\" is open for writing in another program.");
    EXPECT_TRUE(tools.calls().empty());
    expectUntouched();
}

TEST_F(LockFailureTest, AnImagePutInTheWorkingImagesPlaceIsNotTrusted) {
    actions["Ejecting the vault…"] = [this] {
        fs::remove(workingImage());
        writeFile(workingImage(), "another");
    };
    EXPECT_EQ(lockError().kind(), Case::verificationFailed);
    expectUntouched();
}

TEST_F(LockFailureTest, AnItemThatAppearsBeforeTheOriginalGoesStopsIt) {
    actions["Ejecting the vault…"] = [this] { writeFile(target, "another item"); };
    EXPECT_EQ(lockError().kind(), Case::alreadyLocked);
    EXPECT_EQ(readFile(target), "another item");
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(names(), (std::vector<std::string>{"My Docs", "My Docs.quillvane"}));
}

TEST_F(LockFailureTest, AnythingAtTheTargetStopsIt) {
    fs::create_symlink("missing", target);
    const VaultError error = lockError();
    EXPECT_EQ(error.kind(), Case::alreadyLocked);
    EXPECT_EQ(error.errorDescription(),
              "\"My Docs.quillvane\" already exists here. Remove or rename it first.");
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(LockFailureTest, NamesThatWouldNotFitAreFoundBefore) {
    const fs::path longest = parent / std::string(255 - 10 - 8, 'n');
    const fs::path tooLong = parent / std::string(255 - 10 - 7, 'n');
    fs::create_directory(longest);
    fs::create_directory(tooLong);
    EXPECT_NO_THROW(lock(longest, "p", "p"));
    const auto calls = tools.calls().size();
    try {
        lock(tooLong, "p", "p");
        FAIL() << "protected";
    } catch (const VaultError& error) {
        EXPECT_EQ(error.errorDescription(),
                  "Couldn't create the encrypted vault.\nFile name too long");
    }
    EXPECT_EQ(tools.calls().size(), calls);
    EXPECT_TRUE(fs::exists(tooLong));
}

TEST_F(LockFailureTest, AFormerKeyFileThatCannotGetAnotherNameIsFoundBefore) {
    const fs::path longest = parent / std::string(255 - 10 - 8, 'n');
    fs::create_directory(longest);
    const fs::path former = KeyStore::path(longest.string() + ".quillvane");
    writeFile(former, KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode());
    EXPECT_THROW(lock(longest, "p", "p"), VaultError);
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::exists(longest));
}

TEST_F(LockFailureTest, AnItemIsNotNamedBesideAnothersKeyFile) {
    const fs::path longest = parent / std::string(255 - 10 - 8, 'n');
    const fs::path item = longest.string() + ".quillvane";
    const std::string former = KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode();
    fs::create_directory(longest);
    actions["Finalizing the encrypted item…"] = [&] { writeFile(KeyStore::path(item), former); };
    EXPECT_THROW(lock(longest, "pässword", "pässword"), VaultError);
    EXPECT_FALSE(fs::exists(item));
    EXPECT_EQ(readFile(workingImage()), "image");
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(workingKeyFile()), "pässword"), keyGivenToTool());
    EXPECT_EQ(readFile(KeyStore::path(item)), former);
}

TEST_F(LockFailureTest, TooLittleSpaceIsTold) {
    const std::int64_t available = VaultEngine::availableCapacity(parent.path());
    std::error_code tooLarge;
    fs::resize_file(docs / "file", static_cast<std::uintmax_t>(available) + (1 << 30), tooLarge);
    if (tooLarge) GTEST_SKIP() << "this file system has no sparse files of that size";
    EXPECT_EQ(lockError().kind(), Case::insufficientSpace);
    EXPECT_TRUE(tools.calls().empty());
}

TEST_F(LockFailureTest, WhatCannotBeNotedIsNotBegun) {
    writeFile(tools.stateDirectory(), "in the way");
    EXPECT_THROW(lock(), OperationNoteError);
    EXPECT_TRUE(tools.calls().empty());
    expectUntouched();
}

TEST_F(LockFailureTest, CreateFailureLeavesNoImage) {
    tools.play("hdiutil", "create",
               "for image; do :; done; echo half > \"$image\"; echo ' no room ' >&2; exit 1");
    EXPECT_EQ(lockError().errorDescription(), "Couldn't create the encrypted vault.\nno room");
    EXPECT_EQ(tools.calls().size(), 1U);
    expectUntouched();
}

TEST_F(LockFailureTest, CreateThatCannotBeLaunched) {
    tools.uninstall("hdiutil");
    EXPECT_THROW(lock(), ProcessLaunchError);
    expectUntouched();
}

TEST_F(LockFailureTest, AttachFailuresLeaveNoImage) {
    const std::pair<const char*, Case> failures[] = {
        {"echo Authentication error >&2; exit 1", Case::wrongPassword},
        {"echo other >&2; exit 1", Case::attachFailed},
        {"echo '<plist version=\"1.0\"><dict/></plist>'", Case::mountPointNotFound}};
    for (const auto& [script, kind] : failures) {
        tools.play("hdiutil", "attach", script);
        EXPECT_EQ(lockError().kind(), kind) << script;
        expectUntouched();
    }
    EXPECT_EQ(tools.calls().size(), 6U);
}

TEST_F(LockFailureTest, CopyFailureDetachesAndRemovesTheImage) {
    tools.play("ditto", "", "echo ' disk full ' >&2; exit 1");
    EXPECT_EQ(lockError().errorDescription(),
              "Couldn't copy the contents into the vault.\ndisk full");
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    expectUntouched();
}

TEST_F(LockFailureTest, CopyThatCannotBeLaunched) {
    tools.uninstall("ditto");
    EXPECT_EQ(lockError().errorDescription(), "Couldn't copy the contents into the vault.\n"
                                              "Couldn't launch ditto. No such file or directory");
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    expectUntouched();
}

TEST_F(LockFailureTest, CleanUpGoesOnWhenTheVolumeStays) {
    tools.play("ditto", "", "exit 1");
    tools.play("hdiutil", "detach", "echo busy >&2; exit 1");
    EXPECT_EQ(lockError().kind(), Case::copyFailed);
    expectUntouched();
}

TEST_F(LockFailureTest, WhatDidNotArriveIsNamed) {
    tools.play("ditto", "", "cp -a \"$1/.\" \"$2\"; rm -r \"$2/inner\"");
    EXPECT_EQ(lockError().errorDescription(),
              "Data verification failed. Your original folder was left untouched.\n"
              "Missing: \"inner\".");
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    expectUntouched();
}

TEST_F(LockFailureTest, AVolumeThatNobodyHasSeenClosedDeletesNothing) {
    tools.play("hdiutil", "detach", "[ \"$2\" = -force ]");
    EXPECT_EQ(lockError().kind(), VaultError::Case::detachFailed);
    EXPECT_EQ(readFile(docs / "file"), "contents");
    EXPECT_EQ(readFile(docs / "inner/deep"), "deeper");
}

TEST_F(LockFailureTest, DetachFailureKeepsFolderAndImage) {
    tools.play("hdiutil", "detach", "echo stuck >&2; exit 1");
    EXPECT_EQ(lockError().errorDescription(), "Couldn't eject the volume.\nstuck");
    EXPECT_EQ(names().size(), 2U);
    EXPECT_EQ(tools.notes().size(), 1U);
    EXPECT_EQ(readFile(workingImage()), "image");
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(LockFailureTest, AnImageThatIsGoneKeepsTheFolder) {
    actions["Ejecting the vault…"] = [this] { fs::remove(workingImage()); };
    EXPECT_EQ(lockError().errorDescription(),
              "Couldn't copy the contents into the vault.\nNo such file or directory");
    expectUntouched();
}

TEST_F(LockFailureTest, AKeyFileThatCannotBeWrittenKeepsTheFolder) {
    actions["Ejecting the vault…"] = [this] { fs::create_directories(workingKeyFile() / "x"); };
    EXPECT_THROW(lock(), fs::filesystem_error);
    EXPECT_FALSE(fs::exists(workingImage()));
    EXPECT_EQ(readFile(docs / "file"), "contents");
}

TEST_F(LockFailureTest, AFolderThatCannotBeDeletedLeavesAnImageItsPasswordOpens) {
    actions["Deleting the original folder…"] = [this] { fs::remove_all(docs); };
    const VaultError error = lockError();
    EXPECT_EQ(error.errorDescription(), "Your data is safe in the vault (" +
                                            workingImage().string() +
                                            "), but the original folder \"" + docs.string() +
                                            "\" couldn't be deleted. Delete it manually.");
    EXPECT_EQ(readFile(workingImage()), "image");
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(workingKeyFile()), "pässword"), keyGivenToTool());
    EXPECT_FALSE(fs::exists(keyFile));
}

TEST_F(LockFailureTest, ARenameThatFailsLeavesAnImageItsPasswordOpens) {
    const fs::path elsewhere = tools.folder() / "elsewhere";
    actions["Finalizing the encrypted item…"] = [&] { fs::rename(workingImage(), elsewhere); };
    const VaultError error = lockError();
    EXPECT_EQ(error.errorDescription(),
              "Final rename failed.\nEncrypted image available at: " + workingImage().string() +
                  "\nNo such file or directory");
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(workingKeyFile()), "pässword"), keyGivenToTool());
    EXPECT_EQ(names().size(), 1U) << "and no key file for an item that is not there";
}

TEST_F(LockFailureTest, ARenameThatFailsLeavesTheKeyFileOfAnItemThatWasMovedAway) {
    const std::string former = KeyMetadata{.salt = "AA==", .wrapped = "AA=="}.encode();
    writeFile(keyFile, former);
    actions["Finalizing the encrypted item…"] = [&] {
        fs::rename(workingImage(), tools.folder() / "elsewhere");
    };
    lockError();
    EXPECT_EQ(readFile(keyFile), former);
    EXPECT_EQ(names().size(), 2U) << "beside the working key file";
}

/// While it lives, files of this process cannot grow beyond `bytes`, as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : formerAction_(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit limit{bytes, former_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &former_);
        std::signal(SIGXFSZ, formerAction_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*formerAction_)(int);
    rlimit former_{};
};

TEST_F(LockFailureTest, AFullDiskAtTheEndLeavesTheItemWithTheWorkingKeyFile) {
    std::optional<FileSizeLimit> full;
    actions["Finalizing the encrypted item…"] = [&full] { full.emplace(10); };
    lock();
    full.reset();
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(keyFile), "pässword"), keyGivenToTool());
    EXPECT_FALSE(fs::exists(workingKeyFile()));
    EXPECT_FALSE(fs::exists(docs));
}

TEST_F(LockFailureTest, AFinalKeyFileThatCannotBeWrittenKeepsTheWorkingOne) {
    actions["Finalizing the encrypted item…"] = [this] { fs::create_directories(keyFile / "x"); };
    EXPECT_THROW(lock(), fs::filesystem_error);
    EXPECT_EQ(readFile(target), "image");
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(workingKeyFile()), "pässword"), keyGivenToTool());
}

TEST_F(LockFailureTest, CancellingAtAnyStepBeforeTheDeletionUndoesEverything) {
    for (const char* message :
         {"Checking the folder…", "Calculating size…", "Creating the encrypted vault (AES-256)…",
          "Mounting the vault…", "Copying contents into the vault…", "Copying contents… ",
          "Verifying your data is safe…", "Ejecting the vault…"}) {
        reports.clear();
        actions = {{message, [this] { cancellation->request(); }}};
        try {
            lock();
            FAIL() << message;
        } catch (const OperationCancelled& error) {
            EXPECT_EQ(error.errorDescription(), "Cancelled. Nothing was changed.");
        }
        expectUntouched();
        EXPECT_TRUE(cancellation->requested());
        cancellation = std::make_unique<Cancellation>();
        fs::remove_all(tools.mountPoint());
        fs::create_directory(tools.mountPoint());
    }
}

TEST_F(LockFailureTest, CancellingEndsTheCopyAtOnceAndEjects) {
    tools.play("ditto", "", "exec sleep 60");
    actions["Copying contents… "] = [this] { cancellation->request(); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(lock(), OperationCancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(tools.commandLines().back(), "hdiutil detach /dev/disk4");
    expectUntouched();
}

TEST_F(LockFailureTest, CancellingEndsTheMountingAtOnce) {
    tools.play("hdiutil", "attach", "exec sleep 60");
    actions["Mounting the vault"] = [this] { cancellation->request(); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(lock(), OperationCancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    expectUntouched();
}

TEST_F(LockFailureTest, CancellingEndsTheMakingOfTheImageAtOnce) {
    tools.play("hdiutil", "create", "exec sleep 60");
    actions["Creating the encrypted vault"] = [this] { cancellation->request(); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(lock(), OperationCancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    expectUntouched();
}

TEST_F(LockFailureTest, CancellingTooLateIsRefused) {
    bool heard = true;
    actions["Deleting the original folder…"] = [&] { heard = cancellation->request(); };
    EXPECT_EQ(lock().container, target);
    EXPECT_EQ(names().size(), 2U);
    EXPECT_FALSE(heard);
}

} // namespace
