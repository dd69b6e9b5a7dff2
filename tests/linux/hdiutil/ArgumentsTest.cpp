#include "linux/hdiutil/Arguments.h"
#include "linux/hdiutil/ToolError.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

Arguments parse(std::vector<const char*> words) {
    return parseArguments(words);
}

template <typename Kind> Kind parseAs(std::vector<const char*> words) {
    return std::get<Kind>(parse(std::move(words)));
}

TEST(ArgumentsTest, createAsTheEngineCallsIt) {
    const auto create = parseAs<CreateArguments>(
        {"create", "-size", "120m", "-encryption", "AES-256", "-stdinpass", "-volname", "My Docs",
         "-fs", "APFS", "-type", "SPARSE", "/tmp/x.sparseimage"});
    EXPECT_EQ(create.size, 120ULL << 20);
    EXPECT_EQ(create.volumeName, "My Docs");
    EXPECT_EQ(create.image, "/tmp/x.sparseimage");
}

TEST(ArgumentsTest, optionsInAnyOrder) {
    const auto create = parseAs<CreateArguments>(
        {"create", "x", "-stdinpass", "-encryption", "AES-256", "-fs", "JHFS+", "-size", "3g"});
    EXPECT_EQ(create.size, 3ULL << 30);
    EXPECT_EQ(create.volumeName, "untitled");
    const auto attach = parseAs<AttachArguments>(
        {"attach", "x", "-mountpoint", "-odd name", "-nobrowse", "-stdinpass"});
    EXPECT_EQ(attach.mountPoint, "-odd name");
    EXPECT_FALSE(attach.browsable);
    EXPECT_FALSE(attach.plist);
}

TEST(ArgumentsTest, attachAsTheEngineCallsIt) {
    const auto attach =
        parseAs<AttachArguments>({"attach", "-stdinpass", "-plist", "-owners", "on", "/a b/c"});
    EXPECT_TRUE(attach.plist);
    EXPECT_TRUE(attach.browsable);
    EXPECT_EQ(attach.mountPoint, "");
    EXPECT_EQ(attach.image, "/a b/c");
}

TEST(ArgumentsTest, mountOptions) {
    const auto options = [](const char* text) {
        return parseAs<AttachArguments>({"attach", "-stdinpass", "-mountoptions", text, "x"})
            .mountOptions;
    };
    EXPECT_FALSE(parseAs<AttachArguments>({"attach", "-stdinpass", "x"}).mountOptions.any());
    EXPECT_TRUE(options("allow_other").otherUsers);
    EXPECT_FALSE(options("allow_other").setUserId);
    EXPECT_TRUE(options("suid").setUserId);
    EXPECT_FALSE(options("suid").deviceFiles);
    EXPECT_TRUE(options("dev").deviceFiles);
    EXPECT_FALSE(options("dev").otherUsers);
    const MountOptions all = options("dev,suid,allow_other");
    EXPECT_TRUE(all.otherUsers && all.setUserId && all.deviceFiles);
    for (const char* wrong : {"", ",", "allow_other,", ",suid", "suid dev", "nosuid", "exec",
                              "allow_root", "dev,ro", "DEV"})
        EXPECT_THROW(options(wrong), UsageError) << wrong;
}

TEST(ArgumentsTest, detachAsTheEngineCallsIt) {
    EXPECT_EQ(parseAs<DetachArguments>({"detach", "/dev/disk7"}).target, "/dev/disk7");
    EXPECT_FALSE(parseAs<DetachArguments>({"detach", "/dev/disk7"}).force);
    EXPECT_TRUE(parseAs<DetachArguments>({"detach", "-force", "/x"}).force);
}

TEST(ArgumentsTest, sizes) {
    const auto size = [](const char* text) {
        return parseAs<CreateArguments>(
                   {"create", "-size", text, "-encryption", "AES-256", "-stdinpass", "x"})
            .size;
    };
    EXPECT_EQ(size("1k"), 1024U);
    EXPECT_EQ(size("18m"), 18ULL << 20);
    EXPECT_EQ(size("2000g"), 2000ULL << 30);
    for (const char* wrong : {"", "m", "0m", "-1m", "1", "1M", "1.5m", "1m ", "0x1m", "9999999999g",
                              "99999999999999999999m", "1mb"})
        EXPECT_THROW(size(wrong), UsageError) << wrong;
}

TEST(ArgumentsTest, refusesWhatItDoesNotKnow) {
    const std::vector<std::vector<const char*>> wrong = {
        {},
        {"convert"},
        {"create"},
        {"attach", "-stdinpass"},
        {"attach", "x"},
        {"attach", "-stdinpass", "x", "y"},
        {"attach", "-stdinpass", ""},
        {"attach", "-stdinpass", "-owners", "off", "x"},
        {"attach", "-stdinpass", "-readwrite", "x"},
        {"attach", "-stdinpass", "x", "-mountpoint"},
        {"attach", "-stdinpass", "x", "-mountpoint", ""},
        {"attach", "-stdinpass", "x", "-mountoptions"},
        {"attach", "-passphrase", "secret", "x"},
        {"detach"},
        {"detach", "-forced", "x"},
        {"create", "-size", "1m", "-stdinpass", "x"},
        {"create", "-size", "1m", "-encryption", "AES-128", "-stdinpass", "x"},
        {"create", "-size", "1m", "-encryption", "AES-256", "x"},
        {"create", "-encryption", "AES-256", "-stdinpass", "x"},
        {"create", "-size", "1m", "-encryption", "AES-256", "-stdinpass", "-fs", "FAT", "x"},
        {"create", "-size", "1m", "-encryption", "AES-256", "-stdinpass", "-type", "UDIF", "x"},
        {"create", "-size", "1m", "-encryption", "AES-256", "-stdinpass", "-volname", "", "x"},
    };
    for (const auto& words : wrong) {
        std::string line;
        for (const char* word : words) line += std::string(word) + " ";
        EXPECT_THROW(parse(words), UsageError) << line;
    }
}

} // namespace
