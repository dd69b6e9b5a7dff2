#include "Quillvane/KeyMetadata.h"

#include <gtest/gtest.h>

namespace {

std::string record(const std::string& version = "1", const std::string& iterations = "210000") {
    return R"({"version":)" + version + R"(,"kdf":"k","iterations":)" + iterations +
           R"(,"salt":"s","wrapped":"w"})";
}

TEST(KeyMetadata, IsOneLineWithItsMembersInOrder) {
    KeyMetadata metadata;
    metadata.salt = "c2E/";
    metadata.wrapped = "d+E=";
    EXPECT_EQ(
        metadata.encode(),
        R"({"version":1,"kdf":"pbkdf2-sha256","iterations":210000,"salt":"c2E/","wrapped":"d+E="})");
}

TEST(KeyMetadata, ReadsWhatItWrote) {
    KeyMetadata metadata;
    metadata.version = 2;
    metadata.kdf = "other";
    metadata.iterations = 9223372036854775807;
    metadata.salt = "salt";
    const auto read = KeyMetadata::decode(metadata.encode());
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->version, 2);
    EXPECT_EQ(read->kdf, "other");
    EXPECT_EQ(read->iterations, 9223372036854775807);
    EXPECT_EQ(read->salt, "salt");
    EXPECT_EQ(read->wrapped, "");
}

TEST(KeyMetadata, IgnoresOrderBlanksAndOtherMembers) {
    const auto read =
        KeyMetadata::decode(" {\n\"wrapped\":\"a\\/b\",\"note\":[1,{}],\"salt\":\"s\","
                            "\"iterations\":5 ,\"kdf\":\"k\",\"version\":1}\n");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->wrapped, "a/b");
    EXPECT_EQ(read->iterations, 5);
}

TEST(KeyMetadata, TakesAnySpellingOfAnInteger) {
    EXPECT_EQ(KeyMetadata::decode(record("1", "210000.0"))->iterations, 210000);
    EXPECT_EQ(KeyMetadata::decode(record("1", "2.1e5"))->iterations, 210000);
    EXPECT_EQ(KeyMetadata::decode(record("-7"))->version, -7);
    EXPECT_EQ(KeyMetadata::decode(record("1", "-9223372036854775808"))->iterations, INT64_MIN);
}

TEST(KeyMetadata, RefusesWhatIsNoInteger) {
    for (const char* number : {"1.5", "9223372036854775808", "1e19", "-9223372036854775809",
                               "1e999", "\"210000\"", "true", "null", "[1]"})
        EXPECT_FALSE(KeyMetadata::decode(record("1", number)).has_value()) << number;
}

TEST(KeyMetadata, RequiresEveryMember) {
    EXPECT_TRUE(KeyMetadata::decode(record()).has_value());
    for (const std::string name : {"version", "kdf", "iterations", "salt", "wrapped"}) {
        std::string text = record();
        text.replace(text.find(name), name.size(), "other");
        EXPECT_FALSE(KeyMetadata::decode(text).has_value()) << name;
    }
    EXPECT_FALSE(
        KeyMetadata::decode(R"({"version":1,"kdf":1,"iterations":1,"salt":"","wrapped":""})"));
}

TEST(KeyMetadata, RefusesWhatIsNoRecord) {
    for (const std::string& text : {std::string(), std::string("no JSON"), std::string("[]"),
                                    std::string("1"), record() + "x", record().substr(1),
                                    std::string("{\"salt\":\"\xff\"}"), std::string(100'000, '[')})
        EXPECT_FALSE(KeyMetadata::decode(text).has_value()) << text.substr(0, 20);
}

} // namespace
