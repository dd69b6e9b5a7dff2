#include "Quillvane/Base32.h"

#include <gtest/gtest.h>

#include <string>

namespace {

Secret bytes(std::string_view text) {
    return Secret(text);
}

std::string encoded(std::string_view text) {
    return std::string(Base32::encode(bytes(text).bytes()).text());
}

std::string normalized(std::string_view text) {
    return std::string(Base32::normalize(Secret(text)).text());
}

TEST(Base32, EncodesTheVectorsOfRFC4648WithoutPadding) {
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "MY");
    EXPECT_EQ(encoded("fo"), "MZXQ");
    EXPECT_EQ(encoded("foo"), "MZXW6");
    EXPECT_EQ(encoded("foob"), "MZXW6YQ");
    EXPECT_EQ(encoded("fooba"), "MZXW6YTB");
    EXPECT_EQ(encoded("foobar"), "MZXW6YTBOI");
}

TEST(Base32, DecodesTheVectorsOfRFC4648) {
    for (const std::string_view text : {"", "f", "fo", "foo", "foob", "fooba", "foobar"})
        EXPECT_EQ(Base32::decode(Secret(encoded(text))), bytes(text)) << text;
}

TEST(Base32, EncodesAllValues) {
    Secret all(20);
    for (std::size_t i = 0; i < all.size(); ++i)
        all.writable()[i] = static_cast<std::uint8_t>(i * 13 + 1);
    EXPECT_EQ(Base32::decode(Base32::encode(all.bytes())), all);
    const Secret ones(std::string_view("\xff\xff\xff\xff\xff"));
    EXPECT_EQ(Base32::encode(ones.bytes()).text(), "77777777");
}

TEST(Base32, GroupsOfFourOfAVaultKeyHaveSevenHyphens) {
    const Secret grouped = Base32::encodeGrouped(Secret(20).bytes(), 4);
    EXPECT_EQ(grouped.text(), "AAAA-AAAA-AAAA-AAAA-AAAA-AAAA-AAAA-AAAA");
    EXPECT_EQ(grouped.size(), 39U);
}

TEST(Base32, LastGroupMayBeShorter) {
    EXPECT_EQ(Base32::encodeGrouped(bytes("foobar").bytes(), 4).text(), "MZXW-6YTB-OI");
    EXPECT_EQ(Base32::encodeGrouped({}, 4).text(), "");
}

TEST(Base32, DecodesNothingOutsideTheAlphabet) {
    for (const std::string_view text : {"MZ=Q", "mzxq", "MZ0Q", "MZ1Q", "MZ8Q", "M-ZQ", "MZ Q"})
        EXPECT_FALSE(Base32::decode(Secret(text)).has_value()) << text;
    EXPECT_FALSE(Base32::decode(Secret(std::string_view("MZ\xc3\x9f"))).has_value());
}

TEST(Base32, DropsExcessBitsWithoutLookingAtThem) {
    EXPECT_EQ(Base32::decode(Secret(std::string_view("MZ"))), bytes("f"));
    EXPECT_EQ(Base32::decode(Secret(std::string_view("M"))), Secret());
}

TEST(Base32, NormalizesCaseAndDropsEverythingElse) {
    EXPECT_EQ(normalized("mzxw-6ytb oi==\r\n"), "MZXW6YTBOI");
    EXPECT_EQ(normalized("a0b1c8d9"), "ABCD");
    EXPECT_EQ(normalized("é, Å, 、"), "");
    EXPECT_EQ(normalized(""), "");
}

TEST(Base32, NormalizesLikeAUnicodeSystem) {
    EXPECT_EQ(normalized("ß"), "SS");
    EXPECT_EQ(normalized("ﬃ"), "FFI");
    EXPECT_EQ(normalized("ı"), "I");
    EXPECT_EQ(normalized("ſ"), "S");
    EXPECT_EQ(normalized("\xff\xfe"
                         "a\xc3"),
              "A")
        << "ill-formed text is no letter";
}

} // namespace
