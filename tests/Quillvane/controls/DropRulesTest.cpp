#include "Quillvane/DropRules.h"

#include "Quillvane/FileUrl.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

class DropRulesTest : public testing::Test {
protected:
    QUrl folder(const std::string& name) {
        fs::create_directory(directory_ / name);
        return fileUrl(directory_ / name);
    }
    QUrl file(const std::string& name) {
        writeFile(directory_ / name, "x");
        return fileUrl(directory_ / name);
    }
    QUrl missing(const std::string& name) { return fileUrl(directory_ / name); }

    TemporaryFolder directory_;
};

TEST_F(DropRulesTest, folderZoneTakesFoldersAlone) {
    EXPECT_EQ(DropRules::accepted({folder("Docs")}, true), missing("Docs"));
    EXPECT_EQ(DropRules::accepted({folder("A.quillvane")}, true), missing("A.quillvane"));
    EXPECT_TRUE(DropRules::accepted({file("a.txt")}, true).isEmpty());
    EXPECT_TRUE(DropRules::accepted({file("b.quillvane")}, true).isEmpty());
    EXPECT_TRUE(DropRules::accepted({missing("none")}, true).isEmpty());
}

TEST_F(DropRulesTest, itemZoneTakesTheExtensionInAnyLetterCase) {
    EXPECT_EQ(DropRules::accepted({file("a.quillvane")}, false), missing("a.quillvane"));
    EXPECT_EQ(DropRules::accepted({file("b.QuillVane")}, false), missing("b.QuillVane"));
    EXPECT_EQ(DropRules::accepted({folder("c.QUILLVANE")}, false), missing("c.QUILLVANE"));
    EXPECT_TRUE(DropRules::accepted({folder("Docs")}, false).isEmpty());
    EXPECT_TRUE(DropRules::accepted({file("quillvane")}, false).isEmpty());
    EXPECT_TRUE(DropRules::accepted({file("d.quillvane.bak")}, false).isEmpty());
    EXPECT_TRUE(DropRules::accepted({missing("gone.quillvane")}, false).isEmpty());
}

TEST_F(DropRulesTest, takesTheFirstThatQualifiesNotTheFirstDropped) {
    const QList<QUrl> urls{file("a.txt"), missing("gone"), folder("first"), folder("second"),
                           file("b.quillvane")};
    EXPECT_EQ(DropRules::accepted(urls, true), missing("first"));
    EXPECT_EQ(DropRules::accepted(urls, false), missing("b.quillvane"));
    EXPECT_TRUE(DropRules::accepted({}, true).isEmpty());
}

TEST_F(DropRulesTest, seesThroughLinksAndSlashesAtTheEnd) {
    fs::create_directory_symlink(directory_ / "Docs", directory_ / "link");
    EXPECT_TRUE(DropRules::accepted({missing("link")}, true).isEmpty()) << "it leads nowhere yet";
    folder("Docs");
    EXPECT_EQ(DropRules::accepted({missing("link")}, true), missing("link"));
    const QUrl slash = QUrl::fromEncoded(folder("e.quillvane").toEncoded() + "/");
    EXPECT_EQ(DropRules::accepted({slash}, false), slash);
}

TEST_F(DropRulesTest, refusesWhatIsNoFileOfThisComputer) {
    const QByteArray path = folder("Docs").toEncoded().mid(7);
    EXPECT_TRUE(
        DropRules::accepted({QUrl::fromEncoded("https://example.org" + path)}, true).isEmpty());
    EXPECT_TRUE(
        DropRules::accepted({QUrl::fromEncoded("file://elsewhere" + path)}, true).isEmpty());
    EXPECT_TRUE(DropRules::accepted({QUrl()}, true).isEmpty());
}

TEST_F(DropRulesTest, keepsNamesThatAreNotText) {
    const std::string name = "\xff\xfe %25.quillvane";
    const QUrl accepted = DropRules::accepted({file(name)}, false);
    EXPECT_EQ(filePath(accepted), directory_ / name);
}

} // namespace
