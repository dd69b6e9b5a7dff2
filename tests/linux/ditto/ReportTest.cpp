#include "linux/ditto/Report.h"

#include <gtest/gtest.h>

#include <sstream>

TEST(Printable, LeavesOrdinaryNamesAlone) {
    EXPECT_EQ(printable("Docs/a b.txt"), "Docs/a b.txt");
    EXPECT_EQ(printable("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
}

TEST(Printable, EscapesWhatWouldBreakTheLine) {
    EXPECT_EQ(printable("a\nb"), "a\\nb");
    EXPECT_EQ(printable("\x1b[31m\x7f"), "\\x1b[31m\\x7f");
    EXPECT_EQ(printable("\xc2\x85"), "\\xc2\\x85") << "next line, as a C1 control";
    EXPECT_EQ(printable("\xe2\x80\xae"), "\\xe2\\x80\\xae") << "right-to-left override";
    EXPECT_EQ(printable("\\n"), "\\\\n") << "no name looks like another one's escape";
}

TEST(Printable, EscapesBytesThatAreNoUtf8) {
    EXPECT_EQ(printable("\xff"), "\\xff");
    EXPECT_EQ(printable("\xc3"), "\\xc3") << "cut off";
    EXPECT_EQ(printable("\xc3\xc3\xa4"), "\\xc3\xc3\xa4") << "the next character is found again";
    EXPECT_EQ(printable("\xc0\xaf"), "\\xc0\\xaf") << "overlong";
    EXPECT_EQ(printable("\xe0\x80\xaf"), "\\xe0\\x80\\xaf") << "overlong";
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "surrogate";
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond Unicode";
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
