#include "Quillvane/PrintableText.h"

#include <gtest/gtest.h>

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

TEST(PrintableLines, KeepsLinesAndEscapesThatAreThere) {
    EXPECT_EQ(printableLines("Couldn't copy.\nditto: a\\x1b\\\\b: text\n"),
              "Couldn't copy.\nditto: a\\x1b\\\\b: text\n");
}

TEST(PrintableLines, EscapesWhatCommandsATerminal) {
    EXPECT_EQ(printableLines("\"\x1b[2J\r\xc2\x9b\xe2\x80\xae\xff\" isn't open."),
              "\"\\x1b[2J\\x0d\\xc2\\x9b\\xe2\\x80\\xae\\xff\" isn't open.");
}
