#include "Quillvane/SealedBox.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

std::vector<std::uint8_t> bytes(std::string_view hex) {
    std::vector<std::uint8_t> result;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        result.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    return result;
}

struct Vector {
    std::string key, nonce, plaintext, ciphertext, tag;
};

// NIST's gcmEncryptExtIV256 (the second) and the test cases 13 to 15 of the GCM specification.
const Vector vectors[] = {
    {std::string(64, '0'), std::string(24, '0'), "", "", "530f8afbc74536b9a963b4f1c4cb738b"},
    {"31bdadd96698c204aa9ce1448ea94ae1fb4a9a0b3c9d773b51bb1822666b8f22", "0d18e06c7c725ac9e362e1ce",
     "2db5168e932556f8089a0622981d017d", "fa4362189661d163fcd6a56d8bf0405a",
     "d636ac1bbedd5cc3ee727dc2ab4a9489"},
    {std::string(64, '0'), std::string(24, '0'), std::string(32, '0'),
     "cea7403d4d606b6e074ec5d3baf39d18", "d0d1c8a799996bf0265b98b5d48ab919"},
    {"feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
     "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255",
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
     "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad",
     "b094dac5d93471bdec1a502270e3cc6c"},
};

TEST(SealedBox, OpensPublishedVectors) {
    for (const Vector& vector : vectors) {
        const Secret key{std::span<const std::uint8_t>(bytes(vector.key))};
        const auto combined = bytes(vector.nonce + vector.ciphertext + vector.tag);
        const auto opened = SealedBox::open(key, combined);
        ASSERT_TRUE(opened.has_value()) << vector.tag;
        EXPECT_EQ(*opened, Secret(std::span<const std::uint8_t>(bytes(vector.plaintext))));
    }
}

TEST(SealedBox, OpensWhatItSealed) {
    Secret key(32);
    key.writable()[0] = 7;
    for (const std::string_view text : {"", "twenty bytes of key.", "x"}) {
        const auto combined = SealedBox::seal(key, Secret(text));
        ASSERT_TRUE(combined.has_value());
        EXPECT_EQ(combined->size(), 12 + text.size() + 16);
        EXPECT_EQ(SealedBox::open(key, *combined), Secret(text));
    }
}

TEST(SealedBox, DrawsANewNonceEveryTime) {
    const Secret key(32);
    std::set<std::vector<std::uint8_t>> nonces;
    for (int i = 0; i < 50; ++i) {
        const auto combined = SealedBox::seal(key, Secret(std::string_view("same")));
        ASSERT_TRUE(combined.has_value());
        nonces.emplace(combined->begin(), combined->begin() + 12);
    }
    EXPECT_EQ(nonces.size(), 50U);
}

TEST(SealedBox, RefusesEveryChangedBit) {
    const Secret key(32);
    const auto combined = SealedBox::seal(key, Secret(std::string_view("vault key")));
    ASSERT_TRUE(combined.has_value());
    for (std::size_t bit = 0; bit < combined->size() * 8; ++bit) {
        auto changed = *combined;
        changed[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        EXPECT_FALSE(SealedBox::open(key, changed).has_value()) << bit;
    }
}

TEST(SealedBox, RefusesWhatIsTooShort) {
    const Secret key(32);
    const auto combined = SealedBox::seal(key, Secret());
    ASSERT_TRUE(combined.has_value());
    for (std::size_t length = 0; length < 28; ++length)
        EXPECT_FALSE(SealedBox::open(key, std::span(*combined).first(length)).has_value());
}

TEST(SealedBox, TakesKeysOf32BytesOnly) {
    EXPECT_FALSE(SealedBox::seal(Secret(16), Secret()).has_value());
    EXPECT_FALSE(SealedBox::open(Secret(31), std::vector<std::uint8_t>(28)).has_value());
}

} // namespace
