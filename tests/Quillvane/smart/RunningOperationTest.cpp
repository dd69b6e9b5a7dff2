#include "Quillvane/RunningOperation.h"
#include "Quillvane/OperationCancelled.h"

#include <gtest/gtest.h>

namespace {

const Progress early{0.5, "Copying", true};
const Progress late{0.9, "Deleting", false};

class RunningOperationTest : public testing::Test {
protected:
    /// Cancellable, committed.
    std::pair<bool, bool> shown() const {
        return {operation.isCancellable(), operation.isCommitted()};
    }
    static constexpr std::pair nothing{false, false};
    static constexpr std::pair cancellable{true, false};
    static constexpr std::pair committed{false, true};

    RunningOperation operation;
};

TEST_F(RunningOperationTest, NothingRunsAtFirst) {
    EXPECT_FALSE(operation.isRunning());
    EXPECT_EQ(shown(), nothing);
    EXPECT_FALSE(operation.cancel());
    EXPECT_TRUE(operation.hears(late)) << "it is no concern of an operation that never can be";
    EXPECT_EQ(shown(), nothing);
}

TEST_F(RunningOperationTest, CanBeCancelledUntilAReportSaysNo) {
    operation.begin();
    EXPECT_TRUE(operation.isRunning());
    EXPECT_EQ(shown(), cancellable);
    EXPECT_TRUE(operation.hears(early));
    EXPECT_EQ(shown(), cancellable);
    EXPECT_TRUE(operation.hears(late));
    EXPECT_EQ(shown(), committed);
    operation.end();
    EXPECT_FALSE(operation.isRunning());
    EXPECT_EQ(shown(), nothing);
}

TEST_F(RunningOperationTest, WhatIsCancelledIsHeardNoMore) {
    operation.begin();
    const auto cancellation = operation.cancellation();
    EXPECT_TRUE(operation.cancel());
    EXPECT_TRUE(cancellation->requested());
    EXPECT_EQ(shown(), nothing);
    EXPECT_FALSE(operation.hears(early));
    operation.end();
    operation.begin();
    EXPECT_NE(operation.cancellation(), cancellation) << "the next one is another";
    EXPECT_EQ(shown(), cancellable);
}

TEST_F(RunningOperationTest, TooLateIsToldEvenBeforeTheReport) {
    operation.begin();
    operation.cancellation()->commit();
    EXPECT_FALSE(operation.cancel());
    EXPECT_EQ(shown(), committed);
    EXPECT_TRUE(operation.hears(early)) << "it goes on";
    EXPECT_EQ(shown(), committed);
}

} // namespace
