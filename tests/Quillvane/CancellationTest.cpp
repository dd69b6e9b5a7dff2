#include "Quillvane/Cancellation.h"

#include "Quillvane/OperationCancelled.h"

#include <gtest/gtest.h>

namespace {

TEST(CancellationTest, ARequestIsHeardAsLongAsNothingIsCommitted) {
    Cancellation cancellation;
    EXPECT_FALSE(cancellation.requested());
    EXPECT_TRUE(cancellation.request());
    EXPECT_TRUE(cancellation.request());
    EXPECT_TRUE(cancellation.requested());
    EXPECT_THROW(cancellation.commit(), OperationCancelled);
    EXPECT_TRUE(cancellation.requested());
}

TEST(CancellationTest, ARequestIsRefusedFromThePointOfNoReturnOn) {
    Cancellation cancellation;
    cancellation.commit();
    EXPECT_FALSE(cancellation.request());
    EXPECT_FALSE(cancellation.requested());
    EXPECT_NO_THROW(cancellation.commit());
}

} // namespace
