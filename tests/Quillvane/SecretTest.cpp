#include "Quillvane/Secret.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

TEST(Secret, HoldsBytesAndCopiesAreIndependent) {
    Secret first(std::string_view("abc"));
    Secret second = first;
    second.writable()[0] = 'x';
    EXPECT_EQ(first.text(), "abc");
    EXPECT_EQ(second.text(), "xbc");
    first = second;
    EXPECT_EQ(first, second);
    first = *&first;
    EXPECT_EQ(first.text(), "xbc");
}

TEST(Secret, MovesLeaveNothingBehind) {
    Secret first(std::string_view("abc"));
    const Secret second = std::move(first);
    EXPECT_TRUE(first.empty()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(second.text(), "abc");
}

TEST(Secret, AppendsAndClears) {
    Secret text;
    text.append("pass");
    text.append("word");
    text.append("");
    EXPECT_EQ(text.text(), "password");
    text.clear();
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(text, Secret());
}

TEST(Secret, ComparesContents) {
    EXPECT_EQ(Secret(std::string_view("a")), Secret(std::string_view("a")));
    EXPECT_FALSE(Secret(std::string_view("a")) == Secret(std::string_view("b")));
    EXPECT_FALSE(Secret(std::string_view("a")) == Secret(std::string_view("ab")));
}

TEST(Secret, HoldsMoreThanLockedMemoryHasRoomFor) {
    const Secret large(4 << 20);
    EXPECT_EQ(large.bytes().back(), 0);
}

} // namespace
