#include "LuksHeaderEditor.h"
#include "ScratchImage.h"

#include "linux/hdiutil/LuksContainer.h"
#include "linux/hdiutil/ToolError.h"

#include <gtest/gtest.h>
#include <libcryptsetup.h>

#include <chrono>
#include <string>
#include <sys/file.h>

namespace {

using LuksContainer::Unlocked;
using nlohmann::json;

constexpr std::uint64_t mebibyte = 1024 * 1024;
const Secret passphrase("mDq3VpJ0c2hLrZ8eYw1nB5tUxKs=");

// As another program makes images: other sectors, offset, key derivation.
void formatByOthers(ScratchImage& image, const char* type, const char* kdf,
                    std::uint32_t sectorSize, std::size_t keySize) {
    crypt_device* device = nullptr;
    ASSERT_EQ(crypt_init(&device, ("/proc/self/fd/" + std::to_string(image.fd())).c_str()), 0);
    crypt_pbkdf_type derivation{};
    derivation.type = kdf;
    derivation.hash = "sha512";
    derivation.iterations = std::string(kdf) == CRYPT_KDF_PBKDF2 ? 1000 : 4;
    derivation.max_memory_kb = std::string(kdf) == CRYPT_KDF_PBKDF2 ? 0 : 1024;
    derivation.parallel_threads = std::string(kdf) == CRYPT_KDF_PBKDF2 ? 0 : 1;
    derivation.flags = CRYPT_PBKDF_NO_BENCHMARK;
    ASSERT_EQ(crypt_set_pbkdf_type(device, &derivation), 0);
    crypt_params_luks2 parameters{};
    parameters.sector_size = sectorSize;
    const bool second = std::string(type) == CRYPT_LUKS2;
    ASSERT_EQ(crypt_format(device, type, "aes", "xts-plain64", nullptr, nullptr, keySize,
                           second ? &parameters : nullptr),
              0);
    ASSERT_GE(crypt_keyslot_add_by_volume_key(device, CRYPT_ANY_SLOT, nullptr, 0,
                                              passphrase.text().data(), passphrase.size()),
              0);
    crypt_free(device);
}

class LuksContainerTest : public testing::Test {
protected:
    // What unlocking fails with; empty when it does not.
    std::string failure(const Secret& with = passphrase) {
        try {
            LuksContainer::unlock(image.fd(), with);
            return "";
        } catch (const ToolError& error) {
            return error.what();
        }
    }

    ScratchImage image{32 * mebibyte};
};

TEST_F(LuksContainerTest, unlocksWhatItFormats) {
    const Unlocked made = LuksContainer::format(image.fd(), passphrase);
    EXPECT_EQ(made.volumeKey.size(), 64U);
    EXPECT_EQ(made.geometry.payloadOffset, mebibyte);
    EXPECT_EQ(made.geometry.payloadSize, 31 * mebibyte);
    EXPECT_EQ(made.geometry.sectorSize, 4096U);
    const Unlocked opened = LuksContainer::unlock(image.fd(), passphrase);
    EXPECT_TRUE(opened.volumeKey == made.volumeKey);
    EXPECT_EQ(opened.geometry.payloadOffset, made.geometry.payloadOffset);
    EXPECT_EQ(opened.geometry.payloadSize, made.geometry.payloadSize);
    EXPECT_EQ(opened.geometry.sectorSize, made.geometry.sectorSize);
}

TEST_F(LuksContainerTest, makesEveryKeyAnew) {
    const Unlocked first = LuksContainer::format(image.fd(), passphrase);
    const Unlocked second = LuksContainer::format(image.fd(), passphrase);
    EXPECT_FALSE(first.volumeKey == second.volumeKey);
}

TEST_F(LuksContainerTest, takesThePassphraseByteForByte) {
    const std::string text("a\0b\xff\n c", 7);
    LuksContainer::format(image.fd(), Secret(text));
    EXPECT_NO_THROW(LuksContainer::unlock(image.fd(), Secret(text)));
    EXPECT_THROW(LuksContainer::unlock(image.fd(), Secret("a")), WrongPassphrase);
    EXPECT_THROW(LuksContainer::unlock(image.fd(), Secret()), WrongPassphrase);
}

TEST_F(LuksContainerTest, opensWhatOthersMake) {
    for (const char* kdf : {CRYPT_KDF_PBKDF2, CRYPT_KDF_ARGON2ID, CRYPT_KDF_ARGON2I}) {
        for (const std::uint32_t sectorSize : {512U, 4096U}) {
            for (const std::size_t keySize : {32U, 64U}) {
                formatByOthers(image, CRYPT_LUKS2, kdf, sectorSize, keySize);
                const Unlocked opened = LuksContainer::unlock(image.fd(), passphrase);
                EXPECT_EQ(opened.volumeKey.size(), keySize);
                EXPECT_EQ(opened.geometry.sectorSize, sectorSize);
                EXPECT_EQ(opened.geometry.payloadOffset, 16 * mebibyte);
                EXPECT_THROW(LuksContainer::unlock(image.fd(), Secret("x")), WrongPassphrase);
            }
        }
    }
}

TEST_F(LuksContainerTest, refusesTheOlderFormat) {
    formatByOthers(image, CRYPT_LUKS1, CRYPT_KDF_PBKDF2, 512, 64);
    EXPECT_EQ(failure(), "image not recognized (an older kind of encrypted image, LUKS1)");
}

TEST_F(LuksContainerTest, refusesWhatIsNoImage) {
    EXPECT_THROW(LuksContainer::unlock(image.fd(), passphrase), ImageNotSupported);
    image.truncate(0);
    EXPECT_THROW(LuksContainer::unlock(image.fd(), passphrase), ImageNotSupported);
    image.write(0, "LUKS");
    EXPECT_THROW(LuksContainer::unlock(image.fd(), passphrase), ImageNotSupported);
    image.write(0, std::string(100, 'x'));
    EXPECT_THROW(LuksContainer::unlock(image.fd(), passphrase), ImageNotSupported);
}

TEST_F(LuksContainerTest, tellsDamage) {
    LuksContainer::format(image.fd(), passphrase);
    for (const std::uint64_t length : {300000U, 16384U, 5000U, 100U}) {
        image.truncate(length);
        EXPECT_THROW(LuksContainer::unlock(image.fd(), passphrase), ImageDamaged) << length;
    }
    image.truncate(32 * mebibyte);
    LuksContainer::format(image.fd(), passphrase);
    image.write(5000, "garbage");
    EXPECT_EQ(failure(), "") << "the second header is whole";
    image.write(5000, "garbage");
    image.write(16384 + 5000, "garbage");
    EXPECT_THROW(LuksContainer::unlock(image.fd(), passphrase), ImageDamaged);
}

TEST_F(LuksContainerTest, staysOutOfTheWayOfTheLibrarysLock) {
    LuksContainer::format(image.fd(), passphrase);
    EXPECT_EQ(::flock(image.fd(), LOCK_EX | LOCK_NB), 0) << "no lock is left behind";
    ::flock(image.fd(), LOCK_UN);
}

struct Hostile {
    const char* name;
    void (*change)(json&);
    const char* message;
};

class HostileHeaderTest : public LuksContainerTest, public testing::WithParamInterface<Hostile> {};

TEST_P(HostileHeaderTest, isRefusedAtOnce) {
    LuksContainer::format(image.fd(), passphrase);
    editLuksHeader(image, GetParam().change);
    const auto before = std::chrono::steady_clock::now();
    const std::string message = failure();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    EXPECT_NE(message.find(GetParam().message), std::string::npos) << message;
}

constexpr const char* cost = "unreasonable key derivation cost";
// Some of these the library refuses by itself.
constexpr const char* unreadable = "header unreadable";

const Hostile hostileHeaders[] = {
    {"keyslotIterations", [](json& h) { h["keyslots"]["0"]["kdf"]["iterations"] = 2147483647; },
     cost},
    {"digestIterations", [](json& h) { h["digests"]["0"]["iterations"] = 2147483647; }, cost},
    {"argonMemory",
     [](json& h) {
         h["keyslots"]["0"]["kdf"] = {{"type", "argon2id"},
                                      {"time", 4},
                                      {"memory", 2147483647},
                                      {"cpus", 1},
                                      {"salt", h["keyslots"]["0"]["kdf"]["salt"]}};
     },
     cost},
    {"argonTime",
     [](json& h) {
         h["keyslots"]["0"]["kdf"] = {{"type", "argon2i"},
                                      {"time", 2147483647},
                                      {"memory", 1024},
                                      {"cpus", 1},
                                      {"salt", h["keyslots"]["0"]["kdf"]["salt"]}};
     },
     cost},
    {"argonThreads",
     [](json& h) {
         h["keyslots"]["0"]["kdf"] = {{"type", "argon2id"},
                                      {"time", 4},
                                      {"memory", 1048576},
                                      {"cpus", 1000},
                                      {"salt", h["keyslots"]["0"]["kdf"]["salt"]}};
     },
     cost},
    {"nullCipher", [](json& h) { h["segments"]["0"]["encryption"] = "cipher_null-ecb"; },
     "unknown encryption"},
    {"nullKeyslotCipher",
     [](json& h) { h["keyslots"]["0"]["area"]["encryption"] = "cipher_null-ecb"; },
     "unknown keyslot encryption"},
    {"otherCipher", [](json& h) { h["segments"]["0"]["encryption"] = "aes-cbc-essiv:sha256"; },
     "unknown encryption"},
    {"linearSegment",
     [](json& h) {
         h["segments"]["0"] = {{"type", "linear"}, {"offset", "1048576"}, {"size", "dynamic"}};
     },
     "unknown encryption"},
    {"twoSegments",
     [](json& h) {
         h["segments"]["0"]["size"] = "1048576";
         h["segments"]["1"] = h["segments"]["0"];
         h["segments"]["1"]["offset"] = "2097152";
         h["segments"]["1"]["size"] = "dynamic";
         h["digests"]["0"]["segments"] = {"0", "1"};
     },
     "more than one payload"},
    {"noSegment",
     [](json& h) {
         h["segments"] = json::object();
         h["digests"]["0"]["segments"] = json::array();
     },
     unreadable},
    {"requirement",
     [](json& h) {
         h["config"]["requirements"] = {{"mandatory", {"offline-reencrypt"}}};
     },
     "requirements"},
    {"unknownRequirement",
     [](json& h) {
         h["config"]["requirements"] = {{"mandatory", {"from-the-future"}}};
     },
     "requirements"},
    {"integrity",
     [](json& h) {
         h["segments"]["0"]["integrity"] = {{"type", "hmac(sha256)"},
                                            {"journal_encryption", "none"},
                                            {"journal_integrity", "none"}};
     },
     "integrity"},
    {"ivTweak", [](json& h) { h["segments"]["0"]["iv_tweak"] = "8"; }, "unknown initial vector"},
    {"sectorSize", [](json& h) { h["segments"]["0"]["sector_size"] = 2048; },
     "unknown sector size"},
    {"payloadBeyondTheEnd", [](json& h) { h["segments"]["0"]["offset"] = "1099511627776"; },
     "the file ends before its contents begin"},
    {"wrappedOffset", [](json& h) { h["segments"]["0"]["offset"] = "18446744073709547520"; },
     "ends before"},
    {"crookedOffset", [](json& h) { h["segments"]["0"]["offset"] = "1049088"; },
     "4096-byte boundary"},
    {"payloadLongerThanTheFile", [](json& h) { h["segments"]["0"]["size"] = "1099511627776"; },
     "shorter than its contents"},
    {"keyslotInThePayload",
     [](json& h) { h["keyslots"]["0"]["area"]["offset"] = "18446744073709547520"; }, unreadable},
    {"fewStripes", [](json& h) { h["keyslots"]["0"]["af"]["stripes"] = 1; },
     "unknown key splitting"},
    {"keyslotOfAnotherKind", [](json& h) { h["keyslots"]["0"]["type"] = "other"; },
     "unknown kind of keyslot"},
    {"noKeyslot",
     [](json& h) {
         h["keyslots"] = json::object();
         h["digests"]["0"]["keyslots"] = json::array();
     },
     "no keyslot"},
    {"noDigest", [](json& h) { h["digests"] = json::object(); }, "image"},
    {"payloadFlag", [](json& h) { h["segments"]["0"]["flags"] = {"from-the-future"}; },
     "payload flags"},
};

INSTANTIATE_TEST_SUITE_P(LuksContainer, HostileHeaderTest, testing::ValuesIn(hostileHeaders),
                         [](const auto& tested) { return std::string(tested.param.name); });

} // namespace
