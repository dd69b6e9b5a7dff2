#include "Quillvane/VaultKeys.h"
#include "Quillvane/Base32.h"
#include "Quillvane/Cancellation.h"
#include "Quillvane/KeyStore.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/RecoveryError.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "tests/support/KeyFileReader.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using RecoveryCase = RecoveryError::Case;

Secret secret(std::string_view text) {
    return Secret(text);
}
Credential password(std::string_view text) {
    return Credential::password(Secret(text));
}
Credential recoveryKey(std::string_view text) {
    return Credential::recoveryKey(Secret(text));
}

const std::string rawKey = "twenty bytes of key!";
const std::string keyAsBase64 = "dHdlbnR5IGJ5dGVzIG9mIGtleSE=";
const std::string keyAsBase32 = "OR3W-K3TU-PEQG-E6LU-MVZS-A33G-EBVW-K6JB";

template <typename Operation> RecoveryCase recoveryError(Operation&& operation) {
    try {
        operation();
    } catch (const RecoveryError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "nothing was thrown";
    return RecoveryCase::wrapFailed;
}

template <typename Operation> VaultError::Case vaultError(Operation&& operation) {
    try {
        operation();
    } catch (const VaultError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "nothing was thrown";
    return VaultError::Case::notAQuillvane;
}

/// An item whose key file seals `rawKey` under "right".
class VaultKeysTest : public testing::Test {
protected:
    VaultKeysTest() { KeyStore::write(VaultKeys::seal(secret(rawKey), secret("right")), item); }

    void rewrite(const std::function<void(KeyMetadata&)>& change) {
        auto metadata = KeyMetadata::decode(readFile(keyFile));
        ASSERT_TRUE(metadata.has_value());
        change(*metadata);
        KeyStore::write(*metadata, item);
    }

    TemporaryFolder folder;
    fs::path item = folder / "Docs.quillvane";
    fs::path keyFile = folder / ".Docs.quillvane.qvkeys";
};

TEST_F(VaultKeysTest, KeyFileHoldsTheKeyInThePublishedFormat) {
    const std::string text = readFile(keyFile);
    const auto fields = KeyFileReader::parse(text);
    ASSERT_TRUE(fields.has_value()) << text;
    EXPECT_EQ(fields->version, 1);
    EXPECT_EQ(fields->kdf, "pbkdf2-sha256");
    EXPECT_EQ(fields->iterations, 210000);
    EXPECT_EQ(KeyFileReader::vaultKey(text, "right"), rawKey);
    EXPECT_FALSE(KeyFileReader::vaultKey(text, "wrong").has_value());
}

TEST_F(VaultKeysTest, ReadsAKeyFileMadeElsewhere) {
    // Sealed by an independent implementation: password "pässword", 1000 iterations.
    writeFile(keyFile,
              "{\"kdf\":\"pbkdf2-sha256\",\"salt\":\"AAECAwQFBgcICQoLDA0ODw==\","
              "\"wrapped\":\"ZGVmZ2hpamtsbW5vkikmK6CdY9qtfikVidXEjzp0AhRypbYhMDvf8UgbLNYCiV0F\","
              "\"version\":1,\"iterations\":1000,"
              "\"note\":\"kept\"}");
    EXPECT_EQ(VaultEngine::vaultKey(item, password("pässword")).text(), rawKey);
}

TEST_F(VaultKeysTest, PasswordGivesKeyAndPassphrase) {
    EXPECT_EQ(VaultEngine::vaultKey(item, password("right")).text(), rawKey);
    EXPECT_EQ(VaultEngine::passphrase(item, password("right")).text(), keyAsBase64);
    EXPECT_EQ(VaultEngine::passwordData(secret(keyAsBase64)).text(), keyAsBase64 + "\n");
}

TEST_F(VaultKeysTest, RecoveryKeyNeedsNoKeyFile) {
    KeyStore::remove(item);
    EXPECT_EQ(VaultEngine::vaultKey(item, recoveryKey(keyAsBase32)).text(), rawKey);
    EXPECT_EQ(VaultEngine::passphrase(item, recoveryKey(keyAsBase32)).text(), keyAsBase64);
}

TEST_F(VaultKeysTest, WrongPasswordIsTold) {
    for (const char* wrong : {"wrong", "Right", "right ", "right\n"}) {
        EXPECT_EQ(recoveryError([&] { VaultEngine::vaultKey(item, password(wrong)); }),
                  RecoveryCase::wrongPassword);
    }
    EXPECT_EQ(recoveryError([&] { VaultEngine::passphrase(item, password("wrong")); }),
              RecoveryCase::wrongPassword);
}

TEST_F(VaultKeysTest, EmptyPasswordIsRefusedBeforeTheKeyFileIsRead) {
    KeyStore::remove(item);
    EXPECT_EQ(vaultError([&] { VaultEngine::vaultKey(item, password("")); }),
              VaultError::Case::emptyPassword);
    EXPECT_EQ(vaultError([&] { VaultEngine::passphrase(item, password("")); }),
              VaultError::Case::emptyPassword);
}

TEST_F(VaultKeysTest, WithoutAUsableKeyFileThePasswordIsThePassphrase) {
    const std::string valid = readFile(keyFile);
    for (const std::string& text : {std::string("no JSON"), valid.substr(0, valid.size() - 1),
                                    std::string("{\"version\":1}")}) {
        writeFile(keyFile, text);
        EXPECT_EQ(recoveryError([&] { VaultEngine::vaultKey(item, password("right")); }),
                  RecoveryCase::metadataMissing);
        EXPECT_EQ(VaultEngine::passphrase(item, password("right")).text(), "right");
    }
    fs::remove(keyFile);
    EXPECT_EQ(recoveryError([&] { VaultEngine::vaultKey(item, password("right")); }),
              RecoveryCase::metadataMissing);
    EXPECT_EQ(VaultEngine::passphrase(item, password("right")).text(), "right");
}

TEST_F(VaultKeysTest, MembersThatAreNoBase64AreCorrupt) {
    const std::string valid = readFile(keyFile);
    for (const auto member : {&KeyMetadata::salt, &KeyMetadata::wrapped}) {
        writeFile(keyFile, valid);
        rewrite([&](KeyMetadata& metadata) { metadata.*member = "no base64!"; });
        EXPECT_EQ(recoveryError([&] { VaultEngine::vaultKey(item, password("right")); }),
                  RecoveryCase::metadataCorrupt);
        EXPECT_EQ(recoveryError([&] { VaultEngine::passphrase(item, password("right")); }),
                  RecoveryCase::metadataCorrupt);
    }
}

TEST_F(VaultKeysTest, ASealedBoxThatIsTooShortIsAWrongPassword) {
    for (const char* wrapped : {"", "AAAA", "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA"}) {
        rewrite([&](KeyMetadata& metadata) { metadata.wrapped = wrapped; });
        EXPECT_EQ(recoveryError([&] { VaultEngine::vaultKey(item, password("right")); }),
                  RecoveryCase::wrongPassword);
    }
}

TEST_F(VaultKeysTest, VersionAndFunctionNameAreNotJudged) {
    rewrite([](KeyMetadata& metadata) {
        metadata.version = 2;
        metadata.kdf = "argon2id";
    });
    EXPECT_EQ(VaultEngine::vaultKey(item, password("right")).text(), rawKey);
}

TEST_F(VaultKeysTest, StopsTheProgramAtImpossibleIterationCounts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    rewrite([](KeyMetadata& metadata) { metadata.iterations = -1; });
    EXPECT_EXIT(VaultEngine::vaultKey(item, password("right")), testing::ExitedWithCode(134), "");
}

TEST_F(VaultKeysTest, AHostileIterationCountCanBeCancelled) {
    rewrite([](KeyMetadata& metadata) { metadata.iterations = 4294967295; });
    const std::string before = readFile(keyFile);
    Cancellation cancellation;
    cancellation.request();
    EXPECT_THROW(VaultEngine::vaultKey(item, password("right"), &cancellation), OperationCancelled);
    EXPECT_THROW(VaultEngine::passphrase(item, password("right"), &cancellation),
                 OperationCancelled);
    for (const Credential& current : {password("right"), recoveryKey(keyAsBase32)})
        EXPECT_THROW(VaultEngine::changePassword(item, current, secret("new"), &cancellation),
                     OperationCancelled);
    EXPECT_EQ(readFile(keyFile), before);
}

TEST(RecoveryKey, IsReadInAnyCaseAndGrouping) {
    for (const char* typed :
         {"OR3W-K3TU-PEQG-E6LU-MVZS-A33G-EBVW-K6JB", "or3wk3tupeqge6lumvzsa33gebvwk6jb",
          " Or3W k3tu\nPEQGE6LU 01 89 "
          "mvzs_a33g=ebvw.k6jb"})
        EXPECT_EQ(VaultKeys::fromRecoveryKey(secret(typed)).text(), rawKey) << typed;
}

TEST(RecoveryKey, IsJudgedByItsLengthAlone) {
    const std::string key(32, 'A');
    EXPECT_EQ(VaultKeys::fromRecoveryKey(secret(key)), Secret(20));
    EXPECT_EQ(VaultKeys::fromRecoveryKey(secret(key + "7")), Secret(20));
    for (const std::string& typed : {std::string(), key.substr(1), key + "AA", std::string("0189")})
        EXPECT_EQ(recoveryError([&] { VaultKeys::fromRecoveryKey(secret(typed)); }),
                  RecoveryCase::invalidRecoveryKey)
            << typed;
    EXPECT_EQ(recoveryError(
                  [&] { VaultEngine::passphrase("/nowhere/Docs.quillvane", recoveryKey("AAAA")); }),
              RecoveryCase::invalidRecoveryKey);
}

TEST_F(VaultKeysTest, ChangedPasswordReplacesTheOldOne) {
    rewrite([](KeyMetadata& metadata) { metadata.version = 9; });
    VaultEngine::changePassword(item, password("right"), secret("näw"));
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(keyFile), "näw"), rawKey);
    EXPECT_EQ(KeyFileReader::parse(readFile(keyFile))->version, 1);
    EXPECT_EQ(recoveryError([&] { VaultEngine::vaultKey(item, password("right")); }),
              RecoveryCase::wrongPassword);
    EXPECT_EQ(VaultEngine::passphrase(item, recoveryKey(keyAsBase32)),
              VaultEngine::passphrase(item, password("näw")));
}

TEST_F(VaultKeysTest, ChangingToTheSamePasswordDrawsNewSaltAndNonce) {
    const auto before = KeyFileReader::parse(readFile(keyFile));
    VaultEngine::changePassword(item, password("right"), secret("right"));
    const auto after = KeyFileReader::parse(readFile(keyFile));
    ASSERT_TRUE(before && after);
    EXPECT_NE(before->salt, after->salt);
    EXPECT_NE(std::vector(before->wrapped.begin(), before->wrapped.begin() + 12),
              std::vector(after->wrapped.begin(), after->wrapped.begin() + 12));
}

TEST_F(VaultKeysTest, ChangingRewritesOlderIterationCounts) {
    writeFile(keyFile, "{\"version\":1,\"kdf\":\"pbkdf2-sha256\",\"iterations\":1000,\"salt\":"
                       "\"AAECAwQFBgcICQoLDA0ODw==\",\"wrapped\":"
                       "\"ZGVmZ2hpamtsbW5vkikmK6CdY9qtfikVidXEjzp0AhRypbYhMDvf8UgbLNYCiV0F\"}");
    VaultEngine::changePassword(item, password("pässword"), secret("new"));
    EXPECT_EQ(KeyFileReader::parse(readFile(keyFile))->iterations, 210000);
}

TEST_F(VaultKeysTest, ARecoveryKeyIsTakenUnseenWhenThePasswordIsChanged) {
    VaultEngine::changePassword(item, recoveryKey(std::string(32, 'A')), secret("new"));
    EXPECT_EQ(KeyFileReader::vaultKey(readFile(keyFile), "new"), std::string(20, '\0'));
}

TEST_F(VaultKeysTest, WhatIsNoFileGetsNoKeyFile) {
    KeyStore::remove(item);
    fs::create_directory(item);
    const auto change = [&] {
        VaultEngine::changePassword(item, recoveryKey(keyAsBase32), secret("new"));
    };
    EXPECT_EQ(vaultError(change), VaultError::Case::notAQuillvane);
    fs::remove(item);
    fs::create_symlink("missing", item);
    EXPECT_EQ(vaultError(change), VaultError::Case::sourceMissing);
    EXPECT_FALSE(fs::exists(keyFile));
    writeFile(folder / "missing", "image");
    change();
    EXPECT_TRUE(fs::exists(keyFile)) << "beside a link to an image";
}

TEST_F(VaultKeysTest, FailedChangesLeaveTheKeyFileUntouched) {
    const std::string before = readFile(keyFile);
    EXPECT_EQ(vaultError([&] { VaultEngine::changePassword(item, password(""), secret("")); }),
              VaultError::Case::emptyPassword);
    EXPECT_EQ(vaultError([&] { VaultEngine::changePassword(item, password(""), secret("new")); }),
              VaultError::Case::emptyPassword);
    EXPECT_EQ(
        recoveryError([&] { VaultEngine::changePassword(item, password("wrong"), secret("new")); }),
        RecoveryCase::wrongPassword);
    EXPECT_EQ(
        recoveryError([&] { VaultEngine::changePassword(item, recoveryKey("A"), secret("new")); }),
        RecoveryCase::invalidRecoveryKey);
    EXPECT_EQ(readFile(keyFile), before);
    fs::remove(keyFile);
    EXPECT_EQ(
        recoveryError([&] { VaultEngine::changePassword(item, password("right"), secret("new")); }),
        RecoveryCase::metadataMissing);
    EXPECT_FALSE(fs::exists(keyFile));
}

} // namespace
