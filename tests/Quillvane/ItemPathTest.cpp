#include "Quillvane/ItemPath.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

TEST(ItemPath, DropsWhatNamesNothing) {
    EXPECT_EQ(itemPath("/a/Docs/"), "/a/Docs");
    EXPECT_EQ(itemPath("/a//b/./Docs/."), "/a/b/Docs");
    EXPECT_EQ(itemPath("/a/x/../Docs//"), "/a/Docs");
    EXPECT_EQ(itemPath("/"), "/");
    EXPECT_EQ(itemPath("/.."), "/");
}

TEST(ItemPath, StartsAtTheCurrentFolder) {
    EXPECT_EQ(itemPath("Docs"), fs::current_path() / "Docs");
    EXPECT_EQ(itemPath("."), fs::current_path());
    EXPECT_EQ(itemPath(".."), fs::current_path().parent_path());
}

TEST(ItemPath, GoesUpFromWhereALinkLeads) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "real/inner");
    fs::create_directory_symlink(folder / "real/inner", folder / "link");
    EXPECT_EQ(itemPath(folder / "link/../Docs"), folder / "real/Docs");
    EXPECT_EQ(itemPath(folder / "link"), folder / "link") << "a link itself stays";
}

} // namespace
