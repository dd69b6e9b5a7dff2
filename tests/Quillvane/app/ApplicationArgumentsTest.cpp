#include "Quillvane/ApplicationArguments.h"

#include "Quillvane/FileUrl.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Optional;
using ::testing::StartsWith;

std::vector<std::string> paths(std::vector<const char*> words) {
    std::vector<std::string> result;
    for (const QUrl& url : ApplicationArguments::parse(words, "/home/ada").items)
        result.push_back(filePath(url).string());
    return result;
}

TEST(ApplicationArguments, MakesPathsAbsolute) {
    EXPECT_THAT(paths({}), IsEmpty());
    EXPECT_THAT(
        paths({"Docs.quillvane", "../x", "/abs/olute", "a/b/"}),
        ElementsAre("/home/ada/Docs.quillvane", "/home/ada/../x", "/abs/olute", "/home/ada/a/b/"));
}

TEST(ApplicationArguments, KeepsEveryName) {
    EXPECT_THAT(paths({"a b\nc", "\xff\xfe", "100%?#", "-", "https://x/y", "%41"}),
                ElementsAre("/home/ada/a b\nc", "/home/ada/\xff\xfe", "/home/ada/100%?#",
                            "/home/ada/-", "/home/ada/https://x/y", "/home/ada/%41"));
}

TEST(ApplicationArguments, UnderstandsUrlsOfLocalFiles) {
    EXPECT_THAT(paths({"file:///tmp/a%20%FF", "FILE://localhost/b", "./file:c"}),
                ElementsAre("/tmp/a \xff", "/b", "/home/ada/./file:c"));
}

TEST(ApplicationArguments, LeavesOutWhatNamesNothing) {
    EXPECT_THAT(paths({"file:///a%zz", "file://other.example/x", "file:x", "", "last"}),
                ElementsAre("/home/ada/last"));
}

TEST(ApplicationArguments, KnowsNoOtherOptions) {
    for (const char* option : {"-x", "--help", "---", "--=\xff", "--protect=/Docs"}) {
        try {
            paths({"Docs.quillvane", option});
            ADD_FAILURE() << option;
        } catch (const WrongUsageError& error) {
            EXPECT_EQ(error.what(), std::string("unknown option: ") + option);
        }
    }
}

TEST(ApplicationArguments, PrintsWhatTheFirstWordAsksFor) {
    const auto text = [](std::vector<const char*> words) {
        return ApplicationArguments::textToPrint(words);
    };
    EXPECT_THAT(text({"--help"}), Optional(StartsWith("usage: quillvane [ITEM]\n")));
    EXPECT_EQ(text({"-h", "Docs.quillvane"}), text({"--help"}));
    EXPECT_THAT(text({"--version"}), Optional(MatchesRegex("Quillvane [0-9]+[.][0-9]+[.][0-9]+")));
    EXPECT_EQ(text({}), std::nullopt);
    EXPECT_EQ(text({"Docs.quillvane", "--help"}), std::nullopt);
    EXPECT_EQ(text({"--", "--help"}), std::nullopt);
}

TEST(ApplicationArguments, TakesAnythingAfterTwoDashes) {
    EXPECT_THAT(paths({"a", "--", "-x", "--", "--help"}),
                ElementsAre("/home/ada/a", "/home/ada/-x", "/home/ada/--", "/home/ada/--help"));
    EXPECT_THAT(paths({"--"}), IsEmpty());
    EXPECT_THAT(paths({"--", "--protect"}), ElementsAre("/home/ada/--protect"));
}

TEST(ApplicationArguments, TakesOneFolderToProtect) {
    using Words = std::vector<const char*>;
    for (const Words& words :
         {Words{"--protect", "Docs"}, Words{"Docs", "--protect"}, Words{"--protect", "--", "Docs"},
          Words{"--protect", "file:///home/ada/Docs", "file:///a%zz"}}) {
        const auto arguments = ApplicationArguments::parse(words, "/home/ada");
        EXPECT_EQ(filePath(arguments.folderToProtect), "/home/ada/Docs");
        EXPECT_THAT(arguments.items, IsEmpty());
    }
    EXPECT_TRUE(ApplicationArguments::parse(Words{"Docs"}, "/").folderToProtect.isEmpty());
    for (const Words& words :
         {Words{"--protect"}, Words{"--protect", ""}, Words{"--protect", "file://elsewhere/Docs"},
          Words{"--protect", "Docs", "Other"}}) {
        EXPECT_THROW(ApplicationArguments::parse(words, "/home/ada"), WrongUsageError);
    }
}

} // namespace
