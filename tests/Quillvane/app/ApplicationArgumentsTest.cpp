#include "Quillvane/ApplicationArguments.h"

#include "Quillvane/FileUrl.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> paths(std::vector<const char*> words) {
    std::vector<std::string> result;
    for (const QUrl& url : itemsInArguments(words, "/home/ada"))
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

TEST(ApplicationArguments, KnowsNoOptions) {
    for (const char* option : {"-x", "--help", "---", "--=\xff"}) {
        try {
            paths({"Docs.quillvane", option});
            ADD_FAILURE() << option;
        } catch (const UnknownOptionError& error) {
            EXPECT_EQ(error.what(), std::string("unknown option: ") + option);
        }
    }
}

TEST(ApplicationArguments, TakesAnythingAfterTwoDashes) {
    EXPECT_THAT(paths({"a", "--", "-x", "--", "--help"}),
                ElementsAre("/home/ada/a", "/home/ada/-x", "/home/ada/--", "/home/ada/--help"));
    EXPECT_THAT(paths({"--"}), IsEmpty());
}

} // namespace
