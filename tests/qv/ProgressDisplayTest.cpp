#include "qv/ProgressDisplay.h"

#include <gtest/gtest.h>

namespace {

TEST(ProgressLineTest, putsTheBarFirst) {
    EXPECT_EQ(progressLine({0.5, "Copying…"}, 80, true), "████████████░░░░░░░░░░░░  Copying…");
    EXPECT_EQ(progressLine({0.0, "Copying…"}, 80, true), "░░░░░░░░░░░░░░░░░░░░░░░░  Copying…");
}

TEST(ProgressLineTest, keepsToAsciiWhereTheTerminalDoes) {
    EXPECT_EQ(progressLine({0.25, "Copying…"}, 80, false), "######..................  Copying...");
}

TEST(ProgressLineTest, hasNoBarWhileTheFractionIsUnknown) {
    EXPECT_EQ(progressLine({{}, "Opening the vault…"}, 80, true), "Opening the vault…");
}

TEST(ProgressLineTest, narrowsTheBarAndThenLeavesItOut) {
    EXPECT_EQ(progressLine({1.0, "Copying…"}, 50, true), "█████  Copying…");
    EXPECT_EQ(progressLine({1.0, "Copying…"}, 49, true), "Copying…");
}

TEST(ProgressLineTest, cutsWholeCharactersToLessThanTheWidth) {
    EXPECT_EQ(progressLine({{}, "ab…cd"}, 5, true), "ab…c");
    EXPECT_EQ(progressLine({{}, "ab…cd"}, 4, true), "ab…");
    EXPECT_EQ(progressLine({{}, "ab…cd"}, 3, true), "ab");
    EXPECT_EQ(progressLine({{}, "ab"}, 1, true), "");
    EXPECT_EQ(progressLine({{}, "ab"}, 0, true), "");
    const std::string longMessage(200, 'x');
    EXPECT_EQ(progressLine({0.0, longMessage}, 80, false),
              std::string(24, '.') + "  " + std::string(53, 'x'));
}

TEST(ProgressLineTest, survivesAFractionOutOfRange) {
    EXPECT_EQ(progressLine({7.0, ""}, 50, false), "#####  ");
    EXPECT_EQ(progressLine({-7.0, ""}, 50, false), ".....  ");
}

TEST(ProgressStepTest, countsPercentagesInTens) {
    EXPECT_EQ(progressStep("Copying contents… 0%"), "Copying contents… 0%");
    EXPECT_EQ(progressStep("Copying contents… 9%"), "Copying contents… 0%");
    EXPECT_EQ(progressStep("Copying contents… 10%"), "Copying contents… 10%");
    EXPECT_EQ(progressStep("Copying contents… 42%"), "Copying contents… 40%");
    EXPECT_EQ(progressStep("Copying contents… 100%"), "Copying contents… 100%");
}

TEST(ProgressStepTest, leavesOtherMessagesAsTheyAre) {
    EXPECT_EQ(progressStep("Checking the folder…"), "Checking the folder…");
    EXPECT_EQ(progressStep(""), "");
    EXPECT_EQ(progressStep("%"), "%");
    EXPECT_EQ(progressStep("by half a %"), "by half a %");
}

} // namespace
