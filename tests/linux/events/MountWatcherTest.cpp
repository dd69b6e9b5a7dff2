#include "linux/MountWatcher.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string line(const std::string& mountPoint, const std::string& type = "fuse.quillvane") {
    return "91 29 0:52 / " + mountPoint + " rw,nosuid,nodev - " + type + " /images/x rw\n";
}

std::vector<std::filesystem::path> vanished(const std::string& before, const std::string& after) {
    return vanishedVolumes(MountTable(before), MountTable(after));
}

} // namespace

TEST(VanishedVolumes, NothingChanged) {
    EXPECT_THAT(vanished("", ""), IsEmpty());
    EXPECT_THAT(vanished(line("/a") + line("/b"), line("/b") + line("/a")), IsEmpty());
}

TEST(VanishedVolumes, EachThatIsGoneInItsOrder) {
    const std::string before = line("/c") + line("/b") + line("/a") + line("/kept");
    EXPECT_THAT(vanished(before, line("/kept") + line("/new")), ElementsAre("/c", "/b", "/a"));
}

TEST(VanishedVolumes, OthersDoNotMatter) {
    EXPECT_THAT(
        vanished(line("/a", "ext4") + line("/b", "fuse.quillvane-export") + line("/c", "fuse"), ""),
        IsEmpty());
}

TEST(VanishedVolumes, OneOfTwoAtTheSamePlace) {
    EXPECT_THAT(vanished(line("/a") + line("/a"), line("/a")), IsEmpty());
    EXPECT_THAT(vanished(line("/a") + line("/a"), ""), ElementsAre("/a"));
}

TEST(VanishedVolumes, CoveredByAnotherMount) {
    EXPECT_THAT(vanished(line("/a"), line("/a") + line("/a", "tmpfs")), IsEmpty());
    EXPECT_THAT(vanished(line("/a") + line("/a", "tmpfs"), line("/a", "tmpfs")), ElementsAre("/a"));
}

TEST(VanishedVolumes, PathsAreComparedWhole) {
    EXPECT_THAT(vanished(line("/a") + line("/a/b"), line("/a")), ElementsAre("/a/b"));
    EXPECT_THAT(vanished(line("/a") + line("/a/b"), line("/a/b")), ElementsAre("/a"));
    EXPECT_THAT(vanished(line("/a\\040b"), line("/a")), ElementsAre("/a b"));
    EXPECT_THAT(vanished(line("/写真\\012\\134"), ""), ElementsAre("/写真\n\\"));
}
