#include "linux/ditto/Report.h"

#include <gtest/gtest.h>

#include <sstream>

TEST(Report, KeepsANameToItsLine) {
    std::ostringstream out;
    Report report(out);
    report.note("a\nb\x1b[31m", "text");
    EXPECT_EQ(out.str(), "ditto: a\\nb\\x1b[31m: text\n");
}

TEST(Report, CountsAllProblemsAndPrintsTheFirst) {
    std::ostringstream out;
    Report report(out);
    for (int i = 0; i < 22; ++i) report.problem("p" + std::to_string(i), "text");
    report.finish();
    EXPECT_EQ(report.problems(), 22U);
    EXPECT_NE(out.str().find("ditto: p19: text\n"), std::string::npos);
    EXPECT_EQ(out.str().find("p20"), std::string::npos);
    EXPECT_TRUE(out.str().ends_with("ditto: ... and 2 more\n"));
}

TEST(Report, NotesAreNoProblems) {
    std::ostringstream out;
    Report report(out);
    report.note("Docs/s", "is a socket and was not copied");
    report.finish();
    EXPECT_EQ(report.problems(), 0U);
    EXPECT_EQ(out.str(), "ditto: Docs/s: is a socket and was not copied\n");
}
