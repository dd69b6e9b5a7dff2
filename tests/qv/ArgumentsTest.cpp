#include "qv/Arguments.h"

#include <gmock/gmock.h>
#include <vector>

namespace {

using Command = Arguments::Command;
using testing::HasSubstr;

Arguments parse(std::vector<const char*> words) {
    return Arguments::parse(words);
}

std::string refusal(std::vector<const char*> words) {
    try {
        parse(std::move(words));
    } catch (const UsageError& error) {
        return error.what();
    }
    return "understood";
}

TEST(ArgumentsTest, understandsEachCommand) {
    EXPECT_EQ(parse({"lock", "Docs"}).command, Command::lock);
    EXPECT_EQ(parse({"open", "Docs"}).command, Command::open);
    EXPECT_EQ(parse({"close", "Docs"}).command, Command::close);
    EXPECT_EQ(parse({"remove", "Docs"}).command, Command::remove);
    EXPECT_EQ(parse({"change", "Docs"}).command, Command::change);
    EXPECT_EQ(parse({"finish", "Docs"}).command, Command::finish);
    EXPECT_EQ(parse({"undo", "Docs"}).command, Command::undo);
    EXPECT_EQ(parse({"help"}).command, Command::help);
    EXPECT_EQ(parse({"open", "Docs"}).operand, "Docs");
}

TEST(ArgumentsTest, takesOptionsAnywhere) {
    for (const auto& arguments : {parse({"open", "--stdin", "--recovery-key", "Docs"}),
                                  parse({"open", "Docs", "--recovery-key", "--stdin"}),
                                  parse({"--stdin", "open", "--recovery-key", "Docs"})}) {
        EXPECT_EQ(arguments.command, Command::open);
        EXPECT_EQ(arguments.operand, "Docs");
        EXPECT_TRUE(arguments.secretsFromStandardInput);
        EXPECT_TRUE(arguments.useRecoveryKey);
    }
    EXPECT_FALSE(parse({"open", "Docs"}).secretsFromStandardInput);
    EXPECT_FALSE(parse({"open", "Docs"}).useRecoveryKey);
}

TEST(ArgumentsTest, endsOptionsAtTwoHyphens) {
    EXPECT_EQ(parse({"lock", "--", "--stdin"}).operand, "--stdin");
    EXPECT_FALSE(parse({"lock", "--", "--stdin"}).secretsFromStandardInput);
    EXPECT_EQ(parse({"lock", "--stdin", "--", "--"}).operand, "--");
    EXPECT_EQ(parse({"lock", "-"}).operand, "-");
}

TEST(ArgumentsTest, answersHelpAndVersionWhateverElseIsThere) {
    EXPECT_EQ(parse({"--help"}).command, Command::help);
    EXPECT_EQ(parse({"lock", "-h"}).command, Command::help);
    EXPECT_EQ(parse({"--version"}).command, Command::version);
    EXPECT_EQ(parse({"nonsense", "--version"}).command, Command::version);
    EXPECT_EQ(parse({"lock", "--", "--help"}).command, Command::lock);
}

TEST(ArgumentsTest, refusesWhatItDoesNotUnderstand) {
    EXPECT_THAT(refusal({}), HasSubstr("command is missing"));
    EXPECT_THAT(refusal({"unlock", "Docs"}), HasSubstr("no command \"unlock\""));
    EXPECT_THAT(refusal({"lock"}), HasSubstr("needs a path"));
    EXPECT_THAT(refusal({"lock", ""}), HasSubstr("needs a path"));
    EXPECT_THAT(refusal({"lock", "a", "b"}), HasSubstr("too many: b"));
    EXPECT_THAT(refusal({"open", "--force", "a"}), HasSubstr("no option --force"));
    EXPECT_THAT(refusal({"open", "--stdin=x", "a"}), HasSubstr("no option --stdin=x"));
}

TEST(ArgumentsTest, refusesOptionsThatMeanNothingToTheCommand) {
    EXPECT_THAT(refusal({"lock", "--recovery-key", "a"}), HasSubstr("--recovery-key"));
    EXPECT_THAT(refusal({"close", "--recovery-key", "a"}), HasSubstr("--recovery-key"));
    EXPECT_THAT(refusal({"close", "--stdin", "a"}), HasSubstr("--stdin"));
}

} // namespace
