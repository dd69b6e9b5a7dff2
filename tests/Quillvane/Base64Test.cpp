#include "Quillvane/Base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string encoded(std::string_view text) {
    return std::string(Base64::encode(Secret(text).bytes()).text());
}

TEST(Base64, KnowsTheVectorsOfRFC4648) {
    const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, text] : vectors) {
        EXPECT_EQ(encoded(plain), text);
        const auto decoded = Base64::decode(text);
        ASSERT_TRUE(decoded.has_value()) << text;
        EXPECT_EQ(std::string(decoded->begin(), decoded->end()), plain);
    }
}

TEST(Base64, UsesTheStandardAlphabet) {
    EXPECT_EQ(encoded("\xfb\xef\xff"), "++//");
    EXPECT_FALSE(Base64::decode("--__").has_value());
}

TEST(Base64, RefusesWhatItWouldNotWrite) {
    for (const std::string_view text : {"Zg", "Zg=", "Zg===", "====", "=", "Z===", "Zg==Zg==",
                                        "Zm 9v", "Zm9v\n", "Zm9v*", "Zh==", "Zm9="})
        EXPECT_FALSE(Base64::decode(text).has_value()) << text;
}

TEST(Base64, AVaultKeyHasTwentyEightCharacters) {
    const std::string text = encoded(std::string(20, 'k'));
    EXPECT_EQ(text.size(), 28U);
    EXPECT_TRUE(text.ends_with("=") && !text.ends_with("=="));
}

} // namespace
