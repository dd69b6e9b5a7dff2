#include "linux/hdiutil/InodeReferences.h"

#include <gtest/gtest.h>

namespace {

TEST(InodeReferencesTest, CountsEachInode) {
    InodeReferences references;
    EXPECT_FALSE(references.has(12));
    references.add(12);
    references.add(12);
    references.add(13);
    references.remove(12, 1);
    EXPECT_TRUE(references.has(12));
    references.remove(12, 1);
    EXPECT_FALSE(references.has(12));
    EXPECT_TRUE(references.has(13));
}

TEST(InodeReferencesTest, NeverGoesBelowZero) {
    InodeReferences references;
    references.remove(7, 3);
    references.add(7);
    references.remove(7, 1'000'000'000'000);
    EXPECT_FALSE(references.has(7));
    references.remove(7, 0);
    references.add(7);
    EXPECT_TRUE(references.has(7));
}

TEST(InodeReferencesTest, KeepsNeighboursApart) {
    InodeReferences references;
    for (ext2_ino_t inode = 1; inode < 5000; inode += 3) references.add(inode);
    for (ext2_ino_t inode = 1; inode < 5000; inode += 6) references.remove(inode, 1);
    for (ext2_ino_t inode = 1; inode < 5000; ++inode)
        EXPECT_EQ(references.has(inode), inode % 6 == 4) << inode;
}

} // namespace
