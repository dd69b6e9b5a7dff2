#include "linux/MountList.h"

#include <gtest/gtest.h>

namespace {

TEST(MountList, ReadsTheFieldsThatMatter) {
    const auto mounts = MountList::parse(
        "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n"
        "40 36 0:33 / /home/u/Docs rw,nosuid - fuse.quillvane /home/u/Docs.quillvane "
        "rw,user_id=0\n");
    ASSERT_EQ(mounts.size(), 2U);
    EXPECT_EQ(mounts[0].mountPoint, "/mnt2");
    EXPECT_EQ(mounts[0].type, "ext3");
    EXPECT_EQ(mounts[0].source, "/dev/root");
    EXPECT_EQ(mounts[1].mountPoint, "/home/u/Docs");
    EXPECT_EQ(mounts[1].type, "fuse.quillvane");
    EXPECT_EQ(mounts[1].source, "/home/u/Docs.quillvane");
}

TEST(MountList, SkipsAnyNumberOfOptionalFields) {
    const auto mounts = MountList::parse(
        "1 2 0:3 / /a rw shared:1 master:2 propagate_from:3 unbindable - tmpfs none rw");
    ASSERT_EQ(mounts.size(), 1U);
    EXPECT_EQ(mounts[0].type, "tmpfs");
}

TEST(MountList, DecodesOctalEscapes) {
    const auto mounts =
        MountList::parse("1 2 0:3 / /a\\040b\\011c\\012d\\134e\\303\\251 rw - t /s\\0400\\04 rw");
    ASSERT_EQ(mounts.size(), 1U);
    EXPECT_EQ(mounts[0].mountPoint, "/a b\tc\nd\\eé");
    EXPECT_EQ(mounts[0].source, "/s 0\\04");
}

TEST(MountList, LeavesOutWhatItDoesNotUnderstand) {
    for (const char* text : {"", "\n\n", "1 2 0:3 / /a rw", "1 2 0:3 / /a rw -",
                             "1 2 0:3 / /a rw - t", "- - - - - - -", "x"})
        EXPECT_LE(MountList::parse(text).size(), 0U) << text;
}

TEST(MountList, SeesTheRootOfThisSystem) {
    bool found = false;
    for (const auto& mount : MountList::read()) found = found || mount.mountPoint == "/";
    EXPECT_TRUE(found);
}

} // namespace
