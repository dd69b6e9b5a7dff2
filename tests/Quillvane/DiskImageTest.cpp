#include "Quillvane/PropertyListError.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "tests/support/RecordingTools.h"

#include <gtest/gtest.h>

namespace {

using namespace VaultEngine;
using Lines = std::vector<std::string>;

const Secret line(std::string_view("pass phrase\n"));

std::string errorOf(const std::function<void()>& operation, VaultError::Case expected) {
    try {
        operation();
    } catch (const VaultError& error) {
        EXPECT_EQ(error.kind(), expected) << error.what();
        return error.errorDescription();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

TEST(Attach, HidesTheVolumeUnlessBrowsable) {
    const RecordingTools tools;
    attach("/a/My Docs.quillvane", line, false);
    attach("/a/My Docs.quillvane", line, true);
    const std::vector<RecordingTools::Call> expected{
        {"hdiutil",
         {"attach", "-stdinpass", "-plist", "-owners", "on", "-nobrowse", "/a/My Docs.quillvane"},
         "pass phrase\n"},
        {"hdiutil",
         {"attach", "-stdinpass", "-plist", "-owners", "on", "/a/My Docs.quillvane"},
         "pass phrase\n"}};
    EXPECT_EQ(tools.calls(), expected);
}

TEST(Attach, ReadsTheToolsAnswer) {
    const RecordingTools tools;
    const MountInfo info = attach("/a", line, false);
    EXPECT_EQ(info.diskDevEntry, "/dev/disk4");
    EXPECT_EQ(info.mountPoint, tools.mountPoint());
}

TEST(Attach, RefusedPassphrasesAreAWrongPassword) {
    RecordingTools tools;
    for (const char* message : {"hdiutil: attach failed - Authentication error", "AUTHENTICATION",
                                "bad PassPhrase", "image data corrupted"}) {
        tools.play("hdiutil", "attach", "echo '" + std::string(message) + "' >&2; exit 1");
        errorOf([] { attach("/a", line, false); }, VaultError::Case::wrongPassword);
    }
}

TEST(Attach, OtherFailuresAreQuoted) {
    RecordingTools tools;
    tools.play("hdiutil", "attach", "printf '\\n no such image \\n' >&2; exit 1");
    EXPECT_EQ(errorOf([] { attach("/a", line, false); }, VaultError::Case::attachFailed),
              "Couldn't mount the image.\nno such image");
    tools.play("hdiutil", "attach", "echo authentication; exit 9");
    EXPECT_EQ(errorOf([] { attach("/a", line, false); }, VaultError::Case::attachFailed),
              "Couldn't mount the image.\n(nessun dettaglio dal sistema)");
}

TEST(Attach, NeedsAMountPointInTheAnswer) {
    RecordingTools tools;
    tools.answerAttach("");
    errorOf([] { attach("/a", line, false); }, VaultError::Case::mountPointNotFound);
    tools.play("hdiutil", "attach", "echo nonsense");
    EXPECT_THROW(attach("/a", line, false), PropertyListError);
}

TEST(Attach, LaunchFailuresPass) {
    RecordingTools tools;
    tools.uninstall("hdiutil");
    EXPECT_THROW(attach("/a", line, false), ProcessLaunchError);
}

TEST(Detach, PrefersTheDevice) {
    const RecordingTools tools;
    EXPECT_TRUE(detach({"/dev/disk4", "/Volumes/A"}));
    EXPECT_TRUE(detach({std::nullopt, "/Volumes/A b"}));
    EXPECT_EQ(tools.commandLines(),
              (Lines{"hdiutil detach /dev/disk4", "hdiutil detach /Volumes/A b"}));
}

TEST(Detach, ForcesABusyVolume) {
    RecordingTools tools;
    tools.play("hdiutil", "detach", "[ \"$2\" = -force ]");
    EXPECT_TRUE(detach({std::nullopt, "/v"}));
    EXPECT_EQ(tools.commandLines(), (Lines{"hdiutil detach /v", "hdiutil detach -force /v"}));
}

TEST(Detach, QuotesTheForcedAttempt) {
    RecordingTools tools;
    tools.play("hdiutil", "detach", "echo \" $2 is busy \" >&2; exit 1");
    EXPECT_EQ(errorOf(
                  [] {
                      detach({std::nullopt, "/v"});
                  },
                  VaultError::Case::detachFailed),
              "Couldn't eject the volume.\n-force is busy");
    EXPECT_EQ(tools.calls().size(), 2U);
}

TEST(CloseFilled, IsOneCallWhenAllIsWell) {
    const RecordingTools tools;
    closeFilled("/image", line, {"/dev/disk4", "/v"});
    EXPECT_EQ(tools.commandLines(), (Lines{"hdiutil detach /dev/disk4"}));
}

TEST(CloseFilled, OpensAndClosesOnceMoreWhatHadToBeForced) {
    RecordingTools tools;
    tools.play("hdiutil", "detach", "[ \"$2\" != /dev/disk9 ]");
    closeFilled("/image", line, {"/dev/disk9", "/v"});
    EXPECT_EQ(tools.commandLines(),
              (Lines{"hdiutil detach /dev/disk9", "hdiutil detach -force /dev/disk9",
                     "hdiutil attach -stdinpass -plist -owners on -nobrowse /image",
                     "hdiutil detach /dev/disk4"}));
}

TEST(CloseFilled, FailsWhenItIsNeverSeenClosed) {
    RecordingTools tools;
    const auto close = [] { closeFilled("/image", line, {"/dev/disk9", "/v"}); };
    tools.play("hdiutil", "detach", "[ \"$2\" = -force ]");
    EXPECT_EQ(errorOf(close, VaultError::Case::detachFailed),
              "Couldn't eject the volume.\nThe volume couldn't be closed properly.");
    tools.play("hdiutil", "attach", "echo damaged >&2; exit 1");
    errorOf(close, VaultError::Case::attachFailed);
}

TEST(Detach, LaunchFailuresPass) {
    RecordingTools tools;
    tools.uninstall("hdiutil");
    EXPECT_THROW(detach({std::nullopt, "/v"}), ProcessLaunchError);
}

} // namespace
