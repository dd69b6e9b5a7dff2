#include "Quillvane/ErrorText.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/ProcessLaunchError.h"
#include "Quillvane/RecoveryError.h"
#include "Quillvane/VaultError.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

void expectText(const VaultError& error, const std::string& text) {
    EXPECT_EQ(error.errorDescription(), text);
    EXPECT_STREQ(error.what(), text.c_str());
}

TEST(VaultError, QuotesNames) {
    expectText(VaultError::alreadyLocked("Photos.quillvane"),
               "\"Photos.quillvane\" already exists here. Remove or rename it first.");
    expectText(VaultError::targetFolderExists("Photos"),
               "A folder named \"Photos\" already exists here. Rename or remove it before removing "
               "the password.");
    expectText(VaultError::deleteFailed("/a/Docs", "/a/.image"),
               "Your data is safe in the vault (/a/.image), but the original folder \"/a/Docs\" "
               "couldn't be deleted. Delete it manually.");
}

TEST(VaultError, TellsByteCountsInDecimalUnits) {
    expectText(VaultError::insufficientSpace(1'500'000'000, 200'000'000),
               "Not enough disk space. You need at least 1.5 GB free, but only 200 MB is "
               "available. Free up space and try again.");
}

TEST(VaultError, PutsDetailsOnALineOfTheirOwn) {
    expectText(VaultError::createFailed("(nessun dettaglio dal sistema)"),
               "Couldn't create the encrypted vault.\n(nessun dettaglio dal sistema)");
    expectText(VaultError::attachFailed("d"), "Couldn't mount the image.\nd");
    expectText(VaultError::copyFailed("d"), "Couldn't copy the contents into the vault.\nd");
    expectText(VaultError::verificationFailed("d"),
               "Data verification failed. Your original folder was left untouched.\nd");
    expectText(VaultError::detachFailed("d"), "Couldn't eject the volume.\nd");
    expectText(VaultError::renameFailed("d"), "Final rename failed.\nd");
    expectText(VaultError::extractFailed("d"),
               "Couldn't extract the contents. The encrypted vault was left untouched.\nd");
}

TEST(VaultError, HasAFixedSentenceForTheRest) {
    expectText(VaultError::emptyPassword(), "Password can't be empty.");
    expectText(VaultError::passwordMismatch(), "The two passwords don't match.");
    expectText(VaultError::sourceMissing(), "The selected item no longer exists.");
    expectText(VaultError::notADirectory(), "The selected item isn't a folder.");
    expectText(VaultError::sourceIsPackageOrHidden(),
               "Choose a regular folder (not a package or a system volume).");
    expectText(VaultError::mountPointNotFound(), "Couldn't determine the volume's mount point.");
    expectText(VaultError::wrongPassword(), "Wrong password: can't open the vault.");
    expectText(VaultError::notAQuillvane(), "Choose a valid .quillvane item.");
    expectText(VaultError::detachBusy(),
               "The folder is in use (open files): it will close automatically once it's free.");
}

TEST(RecoveryError, HasAFixedSentenceForEachCase) {
    using Case = RecoveryError::Case;
    const auto text = [](Case kind) { return RecoveryError(kind).errorDescription(); };
    EXPECT_EQ(text(Case::invalidRecoveryKey),
              "Invalid recovery key. Check that you typed it correctly.");
    EXPECT_EQ(text(Case::metadataMissing),
              "The key file next to the item is missing: use your recovery key to get back in.");
    EXPECT_EQ(text(Case::metadataCorrupt),
              "The key file is unreadable: use your recovery key to get back in.");
    EXPECT_EQ(text(Case::wrongPassword), "Wrong password.");
    EXPECT_EQ(text(Case::wrapFailed), "Couldn't protect the key.");
    EXPECT_EQ(RecoveryError(Case::wrapFailed), RecoveryError(Case::wrapFailed));
    EXPECT_FALSE(RecoveryError(Case::wrapFailed) == RecoveryError(Case::wrongPassword));
}

TEST(ErrorText, IsTheSentenceOrTheSystemsDescription) {
    EXPECT_EQ(errorText(VaultError::emptyPassword()), "Password can't be empty.");
    EXPECT_EQ(errorText(OperationCancelled()), "Cancelled. Nothing was changed.");
    EXPECT_EQ(errorText(ProcessLaunchError("hdiutil", "No such file or directory")),
              "Couldn't launch hdiutil. No such file or directory");
    const std::filesystem::filesystem_error error(
        "cannot move", "/a", std::make_error_code(std::errc::permission_denied));
    EXPECT_EQ(errorText(error), "Permission denied");
    EXPECT_EQ(systemErrorText(EISDIR), "Is a directory");
}

} // namespace
