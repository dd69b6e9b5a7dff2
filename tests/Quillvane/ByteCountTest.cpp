#include "Quillvane/ByteCount.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(ByteCount, NamesSmallCounts) {
    EXPECT_EQ(ByteCount::text(0), "Zero KB");
    EXPECT_EQ(ByteCount::text(1), "1 byte");
    EXPECT_EQ(ByteCount::text(2), "2 bytes");
    EXPECT_EQ(ByteCount::text(999), "999 bytes");
}

TEST(ByteCount, UsesDecimalUnitsWithAtMostOneDecimal) {
    EXPECT_EQ(ByteCount::text(1000), "1 KB");
    EXPECT_EQ(ByteCount::text(512'000), "512 KB");
    EXPECT_EQ(ByteCount::text(67'108'864), "67.1 MB");
    EXPECT_EQ(ByteCount::text(200'000'000), "200 MB");
    EXPECT_EQ(ByteCount::text(1'500'000'000), "1.5 GB");
    EXPECT_EQ(ByteCount::text(2'040'000'000'000), "2 TB");
    EXPECT_EQ(ByteCount::text(3'250'000'000'000'000), "3.3 PB");
}

TEST(ByteCount, RoundsIntoTheNextUnit) {
    EXPECT_EQ(ByteCount::text(999'949), "999.9 KB");
    EXPECT_EQ(ByteCount::text(999'950), "1 MB");
    EXPECT_EQ(ByteCount::text(999'999'999), "1 GB");
}

TEST(ByteCount, KnowsTheEndsOfItsRange) {
    EXPECT_EQ(ByteCount::text(std::numeric_limits<std::int64_t>::max()), "9.2 EB");
    EXPECT_EQ(ByteCount::text(std::numeric_limits<std::int64_t>::min()), "-9.2 EB");
    EXPECT_EQ(ByteCount::text(-1500), "-1.5 KB");
    EXPECT_EQ(ByteCount::text(-1), "-1 byte");
}

} // namespace
