#include "ScratchImage.h"

#include "linux/hdiutil/EncryptedImage.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t payloadOffset = 8192;
constexpr std::size_t blockSize = EncryptedImage::blockSize;

Bytes fromHex(const std::string& text) {
    Bytes result;
    for (std::size_t i = 0; i < text.size(); i += 2)
        result.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return result;
}

Secret key(const std::string& hex) {
    return Secret(std::span<const std::uint8_t>(fromHex(hex)));
}

// The plaintext of the standard's vectors: 0, 1, … 255, twice.
Bytes counting(std::size_t size) {
    Bytes result(size);
    for (std::size_t i = 0; i < size; ++i) result[i] = static_cast<std::uint8_t>(i);
    return result;
}

// What the library itself makes of `plain` under the vector `iv`.
Bytes encryptedBy(const EVP_CIPHER* cipher, const Secret& secret, std::uint64_t iv,
                  const Bytes& plain) {
    std::uint8_t vector[16] = {};
    for (int i = 0; i < 8; ++i) vector[i] = static_cast<std::uint8_t>(iv >> (8 * i));
    Bytes result(plain.size());
    int length = 0;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, cipher, nullptr, secret.bytes().data(), vector);
    EVP_EncryptUpdate(context, result.data(), &length, plain.data(),
                      static_cast<int>(plain.size()));
    EVP_CIPHER_CTX_free(context);
    return result;
}

class EncryptedImageTest : public testing::Test {
protected:
    EncryptedImage open(const Secret& secret, std::uint32_t sectorSize) {
        return {file.duplicate(), secret, {payloadOffset, 64 * blockSize, sectorSize}};
    }

    ScratchImage file{payloadOffset + 64 * blockSize};
};

// IEEE 1619-2018, Annex B, vector 10: XTS-AES-256, data unit 0xff of 512 bytes.
const Secret key256 = key("2718281828459045235360287471352662497757247093699959574966967627"
                          "3141592653589793238462643383279502884197169399375105820974944592");
const std::string vector10 = "1c3b3a102f770386e4836c99e370cf9bea00803f5e482357a4ae12d414a3e63b"
                             "5d31e276f8fe4a8d66b317f9ac683f44680a86ac35adfc3345befecb4bb188fd"
                             "5776926c49a3095eb108fd1098baec70aaa66999a72a82f27d848b21d4a741b0"
                             "c5cd4d5fff9dac89aeba122961d03a757123e9870f8acf1000020887891429ca"
                             "2a3e7a7d7df7b10355165c8b9a6d0a7de8b062c4500dc4cd120c0f7418dae3d0"
                             "b5781c34803fa75421c790dfe1de1834f280d7667b327f6c8cd7557e12ac3a0f"
                             "93ec05c52e0493ef31a12d3d9260f79a289d6a379bc70c50841473d1a8cc81ec"
                             "583e9645e07b8d9670655ba5bbcfecc6dc3966380ad8fecb17b6ba02469a020a"
                             "84e18e8f84252070c13e9f1f289be54fbc481457778f616015e1327a02b140f1"
                             "505eb309326d68378f8374595c849d84f4c333ec4423885143cb47bd71c5edae"
                             "9be69a2ffeceb1bec9de244fbe15992b11b77c040f12bd8f6a975a44a0f90c29"
                             "a9abc3d4d893927284c58754cce294529f8614dcd2aba991925fedc4ae74ffac"
                             "6e333b93eb4aff0479da9a410e4450e0dd7ae4c6e2910900575da401fc07059f"
                             "645e8b7e9bfdef33943054ff84011493c27b3429eaedb4ed5376441a77ed4385"
                             "1ad77f16f541dfd269d50d6a5f14fb0aab1cbb4c1550be97f7ab4066193c4caa"
                             "773dad38014bd2092fa755c824bb5e54c4f36ffda9fcea70b9c6e693e148c151";
// Vector 4: XTS-AES-128, data unit 0; the first 32 bytes.
const Secret key128 = key("2718281828459045235360287471352631415926535897932384626433832795");
const std::string vector4 = "27a7479befa1d476489f308cd4cfa6e2a96e4bbe3208ff25287dd3819616e89c";

TEST_F(EncryptedImageTest, meetsTheStandardWithSmallSectors) {
    EncryptedImage image = open(key256, 512);
    const Bytes plain = counting(blockSize); // every sector is the standard's plaintext
    image.write(31, std::as_bytes(std::span(plain)));
    // Sector 255 is the last of the eight in block 31.
    EXPECT_EQ(file.read(payloadOffset + 255 * 512, 512), fromHex(vector10));
}

TEST_F(EncryptedImageTest, meetsTheStandardWithShortKeysAndLargeSectors) {
    EncryptedImage image = open(key128, 4096);
    const Bytes plain = counting(blockSize);
    image.write(0, std::as_bytes(std::span(plain)));
    // A longer data unit begins like a shorter one with the same number.
    EXPECT_EQ(file.read(payloadOffset, 32), fromHex(vector4));
}

TEST_F(EncryptedImageTest, numbersLargeSectorsInUnitsOf512Bytes) {
    EncryptedImage image = open(key256, 4096);
    const Bytes plain = counting(3 * blockSize);
    image.write(5, std::as_bytes(std::span(plain)));
    const Bytes block(plain.begin(), plain.begin() + blockSize);
    for (std::uint64_t i = 0; i < 3; ++i) {
        EXPECT_EQ(file.read(payloadOffset + (5 + i) * blockSize, blockSize),
                  encryptedBy(EVP_aes_256_xts(), key256, (5 + i) * 8, block));
    }
}

TEST_F(EncryptedImageTest, readsWhatItWrote) {
    for (const std::uint32_t sectorSize : {512U, 4096U}) {
        for (const Secret* secret : {&key128, &key256}) {
            EncryptedImage image = open(*secret, sectorSize);
            Bytes plain = counting(40 * blockSize);
            plain[12345] = 99;
            image.write(7, std::as_bytes(std::span(plain)));
            Bytes back(plain.size());
            image.read(7, std::as_writable_bytes(std::span(back)));
            EXPECT_EQ(back, plain);
        }
    }
}

TEST_F(EncryptedImageTest, failsBeyondTheEndOfTheFile) {
    EncryptedImage image = open(key256, 4096);
    file.truncate(payloadOffset + 10 * blockSize);
    Bytes back(2 * blockSize);
    try {
        image.read(9, std::as_writable_bytes(std::span(back)));
        FAIL() << "read beyond the end";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EIO);
    }
}

} // namespace
