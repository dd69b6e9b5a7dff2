#include "Quillvane/InterruptedLabels.h"

#include <gtest/gtest.h>

namespace {

using InterruptedWork::Found;
using InterruptedWork::State;

Found noted(State state) {
    return {state, "a note", {}};
}

std::string labels(State state) {
    return InterruptedWork::finishLabel(noted(state)) + "|" +
           InterruptedWork::undoLabel(noted(state));
}

TEST(InterruptedLabelsTest, SayWhatBecomesOfAProtection) {
    EXPECT_EQ(labels(State::unfinished), "Protect it now|Clean up");
    EXPECT_EQ(labels(State::copied), "Finish protecting|Keep the folder");
    EXPECT_EQ(labels(State::deleting), "Finish protecting|Give the folder back");
    EXPECT_EQ(labels(State::unnamed), "Finish protecting|Give the folder back");
}

TEST(InterruptedLabelsTest, SayWhatBecomesOfARemoval) {
    EXPECT_EQ(labels(State::opened), "Finish removing|Close the item");
    EXPECT_EQ(labels(State::incomplete), "Finish removing|Delete the incomplete folder");
    EXPECT_EQ(labels(State::restored), "Finish removing|Keep it protected");
    EXPECT_EQ(labels(State::keyFileLeft), "Delete the key file|Keep the key file");
}

TEST(InterruptedLabelsTest, WhatIsOnlyToldIsNoChoice) {
    EXPECT_EQ(labels(State::named), "OK|");
    EXPECT_FALSE(InterruptedWork::isChoice(noted(State::named)));
    for (const State state : {State::strayImage, State::strayOpenable, State::strayForeign}) {
        EXPECT_EQ(labels(state), "OK|");
        EXPECT_FALSE(InterruptedWork::isChoice({state, {}, {}}));
    }
    EXPECT_TRUE(InterruptedWork::isChoice(noted(State::restored)));
}

TEST(InterruptedLabelsTest, WhatIsMissingMayTurnUp) {
    for (const State state : {State::imageMissing, State::itemMissing}) {
        EXPECT_EQ(labels(state), "Don't tell again|");
        EXPECT_TRUE(InterruptedWork::isChoice(noted(state)));
    }
}

} // namespace
