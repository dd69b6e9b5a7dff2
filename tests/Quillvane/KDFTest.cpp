#include "Quillvane/KDF.h"
#include "Quillvane/Cancellation.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/SecureRandom.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

std::string hex(const Secret& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes.bytes()) {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string pbkdf2(std::string_view password, std::string_view salt, std::int64_t iterations,
                   std::size_t length) {
    return hex(KDF::pbkdf2(Secret(password), Secret(salt).bytes(), iterations, length));
}

TEST(KDF, KnowsTheVectorsOfRFC7914) {
    EXPECT_EQ(pbkdf2("passwd", "salt", 1, 64),
              "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
              "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783");
    EXPECT_EQ(pbkdf2("Password", "NaCl", 80000, 64),
              "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
              "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d");
}

TEST(KDF, TakesEmptyInputs) {
    EXPECT_EQ(pbkdf2("", "salt", 1, 32),
              "f135c27993baf98773c5cdb40a5706ce6a345cde61b000a67858650cd6a324d7");
    EXPECT_EQ(pbkdf2("password", "", 1, 32),
              "c1232f10f62715fda06ae7c0a2037ca19b33cf103b727ba56d870c11f290a2ab");
}

TEST(KDF, CutsTheLastBlock) {
    const std::string whole = pbkdf2("passwd", "salt", 2, 64);
    EXPECT_EQ(pbkdf2("passwd", "salt", 2, 33), whole.substr(0, 66));
    EXPECT_EQ(pbkdf2("passwd", "salt", 2, 0), "");
}

TEST(KDF, ALongPasswordIsHashedFirst) {
    EXPECT_EQ(pbkdf2(std::string(100, 'p'), "salt", 5000, 32),
              "52a363419224dfb1c05683d854acfc2026371db44dbf60f4a477194229dc5f59");
}

TEST(KDF, EndsSoonAfterARequest) {
    using namespace std::chrono_literals;
    Cancellation cancellation;
    std::chrono::steady_clock::time_point requested;
    std::thread user([&] {
        std::this_thread::sleep_for(50ms);
        requested = std::chrono::steady_clock::now();
        cancellation.request();
    });
    EXPECT_THROW(KDF::pbkdf2(Secret(std::string_view("p")), Secret(8).bytes(), 4294967295, 32,
                             &cancellation),
                 OperationCancelled);
    const auto end = std::chrono::steady_clock::now();
    user.join();
    EXPECT_LT(end - requested, 5s);
}

TEST(KDFDeathTest, StopsAtIterationCountsOutOfRange) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto stopped = testing::ExitedWithCode(134);
    EXPECT_EXIT(pbkdf2("p", "salt", -1, 32), stopped, "iteration count is out of range");
    EXPECT_EXIT(pbkdf2("p", "salt", 4294967296, 32), stopped, "iteration count is out of range");
    EXPECT_EXIT(pbkdf2("p", "salt", 0, 32), stopped, "key derivation failed");
}

TEST(SecureRandom, GivesTheCountAskedFor) {
    EXPECT_EQ(SecureRandom::bytes(20).size(), 20U);
    EXPECT_TRUE(SecureRandom::bytes(0).empty());
    EXPECT_FALSE(SecureRandom::bytes(16) == SecureRandom::bytes(16));
}

TEST(SecureRandomDeathTest, StopsAtANegativeCount) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(SecureRandom::bytes(-1), testing::ExitedWithCode(134), "out of range");
}

} // namespace
