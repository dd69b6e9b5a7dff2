#include "linux/MountTable.h"
#include "linux/hdiutil/MountPlace.h"
#include "linux/hdiutil/ToolError.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* mountInfo =
    "22 1 254:1 / / rw,relatime shared:1 - ext4 /dev/vda1 rw\n"
    "40 22 0:38 / /home/u/Volumes/My\\040Docs rw,nosuid shared:7 master:2 - fuse.quillvane "
    "/home/u/My\\040Docs.quillvane rw,user_id=1000\n"
    "41 22 0:39 / /mnt/line\\012feed\\134x rw - fuse.quillvane /x,y rw\n"
    "42 22 0:40 / /mnt/other rw - fuse.sshfs host: rw\n"
    "this line means nothing\n"
    "43 22 0:41 / /mnt/stacked rw - fuse.quillvane /below rw\n"
    "44 43 0:42 / /mnt/stacked rw - fuse.quillvane /above rw\n"
    "45 22 0:43 / /mnt/nosource rw - tmpfs\n"
    "46 22 0:44 / /mnt/covered rw - fuse.quillvane /covered rw\n"
    "47 46 0:45 / /mnt/covered rw - tmpfs none rw\n";

TEST(MountTableTest, readsEveryLineThatItUnderstands) {
    const MountTable table(mountInfo);
    ASSERT_EQ(table.entries().size(), 9U);
    const MountEntry& docs = table.entries()[1];
    EXPECT_EQ(docs.major, 0U);
    EXPECT_EQ(docs.minor, 38U);
    EXPECT_EQ(docs.mountPoint, "/home/u/Volumes/My Docs");
    EXPECT_EQ(docs.type, "fuse.quillvane");
    EXPECT_EQ(docs.source, "/home/u/My Docs.quillvane");
    EXPECT_EQ(docs.deviceName(), "/dev/disk38");
    EXPECT_EQ(docs.user, 1000U);
    EXPECT_EQ(table.entries()[2].user, std::nullopt);
    EXPECT_EQ(table.entries()[2].mountPoint, "/mnt/line\nfeed\\x");
}

TEST(MountTableTest, tellsWhoseAMountIs) {
    const auto isOwn = [](const std::string& options) {
        return MountTable("40 22 0:38 / /mnt rw - fuse.quillvane " + options + "\n")
            .entries()
            .at(0)
            .isOwn();
    };
    const std::string own = "user_id=" + std::to_string(::geteuid());
    EXPECT_TRUE(isOwn("/image rw," + own + ",group_id=1"));
    EXPECT_TRUE(isOwn("/image " + own));
    const std::vector<std::string> others{"/image rw",
                                          "/image rw,user_id=12345",
                                          "/image rw,group_id=0",
                                          "rw," + own,
                                          "/image,user_id=0 rw",
                                          "/image rw," + own + "x",
                                          "/image rw,user_id=12345," + own,
                                          "/image rw,x" + own};
    for (const std::string& other : others) EXPECT_FALSE(isOwn(other)) << other;
}

TEST(MountTableTest, onlyASpaceEndsAField) {
    const std::string own = "user_id=" + std::to_string(::geteuid());
    const MountTable table("40 22 0:38 / /mnt/a\rb\vc rw - fuse.quillvane /home/u/a\rb\vc rw," +
                           own + "\n41 22 0:39 / /mnt rw - fuse.quillvane x\frw," + own +
                           " rw,user_id=12345\n42 22 0:40 / /mnt rw - fuse.quillvane  rw," + own +
                           "\n");
    ASSERT_EQ(table.entries().size(), 3U);
    EXPECT_EQ(table.entries()[0].mountPoint, "/mnt/a\rb\vc");
    EXPECT_EQ(table.entries()[0].source, "/home/u/a\rb\vc");
    EXPECT_TRUE(table.entries()[0].isOwn());
    EXPECT_FALSE(table.entries()[1].isOwn()) << "another user's, who chooses the source";
    EXPECT_EQ(table.entries()[2].source, "");
    EXPECT_TRUE(table.entries()[2].isOwn());
}

TEST(MountTableTest, findsTheTopmostMount) {
    const MountTable table(mountInfo);
    EXPECT_EQ(table.at("/mnt/stacked")->minor, 42U);
    EXPECT_FALSE(table.at("/mnt/stack"));
    EXPECT_FALSE(table.at("/mnt/stacked/below"));
}

TEST(MountTableTest, findsVolumesByDeviceOrMountPoint) {
    const MountTable table(mountInfo);
    EXPECT_EQ(table.volume("/dev/disk38")->minor, 38U);
    EXPECT_EQ(table.volume("/dev/disk41")->minor, 41U);
    EXPECT_EQ(table.volume("/home/u/Volumes/My Docs")->minor, 38U);
    EXPECT_EQ(table.volume("/home/u/Volumes/My Docs/")->minor, 38U);
    EXPECT_EQ(table.volume("/mnt/line\nfeed\\x")->minor, 39U);
    for (const char* none : {"/dev/disk40", "/dev/disk3", "/dev/disk", "/mnt/other", "/", "",
                             "/mnt/covered", "/home/u/Volumes/My"})
        EXPECT_FALSE(table.volume(none)) << none;
}

TEST(MountTableTest, findsAVolumeWhereverItIsMounted) {
    const MountEntry then = *MountTable(mountInfo).volume("/dev/disk38");
    const char* const source = " rw - fuse.quillvane /home/u/My\\040Docs.quillvane rw\n";
    const MountTable now("22 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
                         "40 22 0:38 / /home/u/Renamed/My\\040Docs" +
                         std::string(source) + "41 22 0:38 /inner /mnt/second" + source +
                         "42 22 0:39 / /mnt/other" + source + "43 22 1:38 / /mnt/major" + source +
                         "44 22 0:38 / /mnt/number rw - fuse.quillvane /another rw\n"
                         "45 22 0:38 / /mnt/type rw - tmpfs /home/u/My\\040Docs.quillvane rw\n");
    ASSERT_EQ(now.mountsOf(then).size(), 2U);
    EXPECT_EQ(now.mountsOf(then)[0].mountPoint, "/home/u/Renamed/My Docs");
    EXPECT_EQ(now.mountsOf(then)[1].mountPoint, "/mnt/second");
    EXPECT_TRUE(MountTable("").mountsOf(then).empty());
}

TEST(MountTableTest, seesThisProcesssMounts) {
    ASSERT_TRUE(MountTable::current().at("/"));
    EXPECT_FALSE(isDeadMount(*MountTable::current().at("/")));
}

TEST(MountPlaceTest, knowsTheCallersDirectoryFromAnother) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "Docs");
    std::filesystem::create_directory(folder / "elsewhere");
    const MountPlace place = MountPlace::existing(folder / "Docs/");
    EXPECT_EQ(place.path(), folder / "Docs");
    EXPECT_TRUE(place.isAt(folder / "Docs"));
    std::filesystem::rename(folder / "Docs", folder / "moved");
    std::filesystem::create_directory_symlink("elsewhere", folder / "Docs");
    EXPECT_FALSE(place.isAt(folder / "Docs"));
    EXPECT_FALSE(place.isAt(folder / "elsewhere"));
    EXPECT_TRUE(place.isAt(folder / "moved"));
    EXPECT_THROW(MountPlace::existing(folder / "Docs"), ToolError);
    EXPECT_THROW(MountPlace::existing(folder / "Docs/"), ToolError);
}

TEST(MountPlaceTest, directoryNames) {
    EXPECT_EQ(directoryName("Fotos – Käse 写真"), "Fotos – Käse 写真");
    EXPECT_EQ(directoryName("a/b"), "a:b");
    EXPECT_EQ(directoryName(""), "untitled");
    EXPECT_EQ(directoryName("."), "untitled");
    EXPECT_EQ(directoryName(".."), "untitled");
    EXPECT_EQ(directoryName("..."), "...");
    EXPECT_EQ(directoryName("tab\tfeed\nreturn\rbell\a\x7f"), "tab\tfeed\nreturn_bell__");
    EXPECT_EQ(directoryName(std::string_view("a\0b", 3)), "a_b");
}

TEST(MountPlaceTest, directoryNamesAreValidUtf8) {
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(directoryName("a\xff"
                            "b"),
              "a" + bad + "b");
    EXPECT_EQ(directoryName("\xc3"), bad);
    EXPECT_EQ(directoryName("\xc0\xaf"), bad + bad);
    EXPECT_EQ(directoryName("\xed\xa0\x80"), bad + bad + bad);
    EXPECT_EQ(directoryName("\xf5\x80\x80\x80"), bad + bad + bad + bad);
    EXPECT_EQ(directoryName("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
}

TEST(MountPlaceTest, directoryNamesAreCutBetweenCharacters) {
    std::string umlauts;
    for (int i = 0; i < 200; ++i) umlauts += "ü";
    EXPECT_EQ(directoryName(umlauts).size(), 254U);
    EXPECT_EQ(directoryName(umlauts, 253).size(), 252U);
    EXPECT_EQ(directoryName(std::string(300, 'a')).size(), 255U);
}

} // namespace
