#include "linux/hdiutil/Caller.h"
#include "Ext4VolumeFixture.h"

#include <csignal>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace {

constexpr gid_t friends = 2001;
constexpr gid_t strangers = 2002;

TEST(CallerTest, BelongsToItsOwnGroup) {
    EXPECT_TRUE((Caller{1000, 1000, 0, 0}.actsFor(1000)));
    EXPECT_TRUE((Caller{0, 0, 0, 0}.actsFor(strangers)));
}

TEST(CallerTest, AProcessThatIsNotThereGetsNothing) {
    EXPECT_FALSE((Caller{1000, 1000, 0, 0}.actsFor(friends)));
    EXPECT_FALSE((Caller{1000, 1000, 0, 1 << 30}.actsFor(friends)));
}

/// Calls `check` with a process of an ordinary user who is also in the group `friends`.
void withUser(const std::function<void(const Caller&)>& check) {
    int ready[2]{-1, -1};
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t user = ::fork();
    ASSERT_GE(user, 0);
    if (user == 0) {
        const gid_t groups[] = {friends};
        const bool dropped =
            ::setgroups(1, groups) == 0 && ::setgid(1000) == 0 && ::setuid(1000) == 0;
        if (::write(ready[1], dropped ? "y" : "n", 1) != 1) ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    char answer = 0;
    EXPECT_EQ(::read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    check({1000, 1000, 0, user});
    ::kill(user, SIGKILL);
    ::waitpid(user, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST(CallerTest, BelongsToItsOtherGroups) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to become a user with groups";
    withUser([](const Caller& caller) {
        EXPECT_TRUE(caller.actsFor(friends));
        EXPECT_FALSE(caller.actsFor(strangers));
    });
}

// As the thread of a process that has all capabilities in a user name space of its own.
TEST(CallerTest, CapabilitiesOfOthersThanRootDoNotCount) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, who has the capabilities";
    const Caller caller{1000, 1000, 0, ::getpid()};
    EXPECT_FALSE(caller.actsFor(strangers));
    EXPECT_FALSE(caller.keepsBits());
}

TEST(CallerTest, KeepsBitsByPrivilegeOnly) {
    EXPECT_TRUE((Caller{0, 0, 0, 0}.keepsBits()));
    EXPECT_FALSE((Caller{1000, 1000, 0, 0}.keepsBits()));
    EXPECT_FALSE((Caller{0, 0, 0, 1 << 30}.keepsBits()));
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, who has the privilege";
    EXPECT_TRUE((Caller{0, 0, 0, ::getpid()}.keepsBits()));
    withUser([](Caller caller) {
        EXPECT_FALSE(caller.keepsBits());
        caller.user = 0; // without its capabilities
        EXPECT_FALSE(caller.keepsBits());
    });
}

class GroupBitTest : public Ext4VolumeTest {
protected:
    void SetUp() override {
        file = makeFile(root, "file");
        restore();
    }
    void TearDown() override { expectClean(); }
    void restore() {
        Ext4Volume::Changes changes;
        changes.group = friends;
        volume().setAttributes(file, changes);
        changes = {};
        changes.mode = 02644;
        volume().setAttributes(file, changes);
    }
    bool has() { return (volume().attributes(file).st_mode & S_ISGID) != 0; }

    static constexpr Caller stranger{1000, 1000, 0, 0};
    static constexpr Caller friendly{1000, friends, 0, 0};
    ext2_ino_t file = 0;
};

TEST_F(GroupBitTest, IsLostByStrangers) {
    const std::vector<std::function<void(const Caller&)>> works = {
        [&](const Caller& caller) { volume().write(file, 0, pattern(10, 1), caller); },
        [&](const Caller& caller) { volume().allocate(file, 0, 0, 10, caller); },
        [&](const Caller& caller) {
            Ext4Volume::Changes changes;
            changes.size = 5;
            volume().setAttributes(file, changes, caller);
        },
        [&](const Caller& caller) {
            Ext4Volume::Changes changes;
            changes.owner = 1001;
            volume().setAttributes(file, changes, caller);
        },
    };
    for (const auto& work : works) {
        restore();
        work(friendly);
        EXPECT_TRUE(has());
        work(stranger);
        EXPECT_FALSE(has());
    }
}

TEST_F(GroupBitTest, StaysWhenNothingOfTheFileChanges) {
    Ext4Volume::Changes changes;
    changes.accessed = timespec{1, 2};
    volume().setAttributes(file, changes, stranger);
    volume().setAttribute(file, "user.a", pattern(3, 1), 0, stranger);
    EXPECT_TRUE(has());
}

class PrivilegesTest : public GroupBitTest {
protected:
    void SetUp() override {
        GroupBitTest::SetUp();
        volume().whenBitsAreLost([this](ext2_ino_t inode) { told.push_back(inode); });
    }
    void makePrivileged() {
        Ext4Volume::Changes changes;
        changes.mode = 06755;
        volume().setAttributes(file, changes);
        volume().setAttribute(file, "security.capability", pattern(20, 1), 0);
        told.clear();
    }
    mode_t bits() { return volume().attributes(file).st_mode & (S_ISUID | S_ISGID); }
    bool hasCapability() {
        return errnoFrom([&] { volume().attribute(file, "security.capability"); }) == 0;
    }
    void truncate(const Caller& caller) {
        Ext4Volume::Changes changes;
        changes.size = 5;
        volume().setAttributes(file, changes, caller);
    }
    void giveAway(const Caller& caller) {
        Ext4Volume::Changes changes;
        changes.owner = 1001;
        volume().setAttributes(file, changes, caller);
    }

    static constexpr Caller user{1000, friends, 0, 0};
    static constexpr Caller privileged{0, 0, 0, 0};
    std::vector<ext2_ino_t> told;
};

TEST_F(PrivilegesTest, AreLostWhenAUserWrites) {
    const std::vector<std::function<void()>> works = {
        [&] { volume().write(file, 0, pattern(10, 1), user); },
        [&] { volume().allocate(file, 0, 0, 10, user); }, [&] { truncate(user); },
        [&] { giveAway(user); }};
    for (const auto& work : works) {
        makePrivileged();
        EXPECT_EQ(bits(), mode_t{S_ISUID | S_ISGID});
        EXPECT_TRUE(hasCapability());
        work();
        EXPECT_EQ(bits(), 0U);
        EXPECT_FALSE(hasCapability());
        EXPECT_EQ(told, std::vector{file});
    }
}

TEST_F(PrivilegesTest, OfWhoMayWriteKeepAllButCapabilities) {
    const std::vector<std::function<void()>> works = {
        [&] { volume().write(file, 0, pattern(10, 1), privileged); },
        [&] { volume().allocate(file, 0, 0, 10, privileged); }, [&] { truncate(privileged); }};
    for (const auto& work : works) {
        makePrivileged();
        work();
        EXPECT_EQ(bits(), mode_t{S_ISUID | S_ISGID});
        EXPECT_FALSE(hasCapability());
        EXPECT_TRUE(told.empty());
    }
    giveAway(privileged);
    EXPECT_EQ(bits(), 0U);
}

TEST_F(PrivilegesTest, AreLostByAChangeOfNothing) {
    const Caller owner{volume().attributes(file).st_uid, friends, 0, 0};
    for (const Caller& caller : {owner, privileged}) {
        makePrivileged();
        volume().setAttributes(file, {}, caller);
        EXPECT_EQ(bits(), 0U);
    }
    makePrivileged();
    volume().setAttributes(file, {}, {owner.user + 1, friends, 0, 0});
    EXPECT_EQ(bits(), mode_t{S_ISUID | S_ISGID});
}

TEST_F(PrivilegesTest, StayWhenThereIsNothingToWrite) {
    makePrivileged();
    volume().write(file, 0, {}, user);
    EXPECT_EQ(bits(), mode_t{S_ISUID | S_ISGID});
    EXPECT_TRUE(hasCapability());
}

} // namespace
