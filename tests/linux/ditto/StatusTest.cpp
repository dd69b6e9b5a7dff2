#include "linux/ditto/Status.h"
#include "linux/CopiedAttributes.h"

#include <gtest/gtest.h>

namespace {
constexpr std::int64_t ext4End = 0x37fffffff;
}

TEST(SameTime, AcceptsEqualTimesOnly) {
    EXPECT_TRUE(sameTime({100, 123'456'789}, {100, 123'456'789}));
    EXPECT_FALSE(sameTime({100, 123'456'789}, {100, 123'456'788}));
    EXPECT_FALSE(sameTime({100, 123'456'789}, {101, 123'456'789}));
    EXPECT_FALSE(sameTime({100, 0}, {101, 0}));
}

TEST(SameTime, AcceptsCoarserFileSystems) {
    for (const long kept : {123'456'700L, 123'456'000L, 123'000'000L, 120'000'000L, 0L}) {
        EXPECT_TRUE(sameTime({101, 123'456'789}, {101, kept})) << kept;
    }
    EXPECT_TRUE(sameTime({101, 123'456'789}, {100, 0})) << "two seconds";
    EXPECT_FALSE(sameTime({101, 123'456'789}, {101, 124'000'000})) << "never rounded up";
    EXPECT_FALSE(sameTime({102, 0}, {100, 0}));
    EXPECT_TRUE(sameTime({-3, 500'000'000}, {-4, 0})) << "before 1970, cut to two seconds";
}

TEST(SameTime, AcceptsTheEndsOfWhatAFileSystemCanTell) {
    EXPECT_TRUE(sameTime({-11'644'473'600, 0}, {-2147483648LL, 0})) << "1601 on ext4";
    EXPECT_TRUE(sameTime({ext4End + 5, 0}, {ext4End, 0}));
    EXPECT_TRUE(sameTime({5'000'000'000, 0}, {2147483647, 0}));
    EXPECT_FALSE(sameTime({5, 0}, {2147483647, 0}));
    EXPECT_FALSE(sameTime({5, 0}, {0, 0}));
}

TEST(CopiedAttributes, AreTheUsersData) {
    for (const char* name : {"user.x", "trusted.x", "security.capability", "security.note",
                             "system.posix_acl_access", "system.posix_acl_default"}) {
        EXPECT_TRUE(isCopiedAttribute(name)) << name;
    }
    for (const char* name : {"security.selinux", "security.SMACK64EXEC", "security.ima",
                             "security.evm", "security.apparmor", "system.nfs4_acl",
                             "system.ntfs_attrib", "btrfs.compression", "ceph.dir.layout"}) {
        EXPECT_FALSE(isCopiedAttribute(name)) << name;
    }
}
