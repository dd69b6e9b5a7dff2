#include "Quillvane/AttachOutput.h"
#include "Quillvane/PropertyListError.h"
#include "Quillvane/VaultError.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string list(const std::string& root) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">" +
           root + "</plist>\n";
}

std::string entity(const std::string& node, const std::string& mountPoint = "") {
    std::string text = "<dict><key>dev-entry</key><string>" + node + "</string>";
    if (!mountPoint.empty()) text += "<key>mount-point</key><string>" + mountPoint + "</string>";
    return text + "</dict>";
}

std::string entities(const std::string& members) {
    return list("<dict><key>system-entities</key><array>" + members + "</array></dict>");
}

TEST(AttachOutput, TakesTheWholeDiskFirstAndTheVolumeLast) {
    const MountInfo info =
        AttachOutput::parse(entities(entity("/dev/disk4") + entity("/dev/disk4s1") +
                                     entity("/dev/disk5s1", "/Volumes/A b &amp; é")));
    EXPECT_EQ(info.diskDevEntry, "/dev/disk4");
    EXPECT_EQ(info.mountPoint, "/Volumes/A b & é");
}

TEST(AttachOutput, TakesTheFirstOfSeveral) {
    const MountInfo info = AttachOutput::parse(
        entities("<dict><key>mount-point</key><string></string></dict>" +
                 entity("/dev/disk10", "/one") + entity("/dev/disk11", "/two")));
    EXPECT_EQ(info.diskDevEntry, "/dev/disk10");
    EXPECT_EQ(info.mountPoint, "/one");
}

TEST(AttachOutput, KnowsWholeDisksOnly) {
    for (const char* node : {"/dev/disk4s1", "/dev/disk", "/dev/diskX", "disk4", "x/dev/disk4"})
        EXPECT_FALSE(AttachOutput::parse(entities(entity(node, "/m"))).diskDevEntry.has_value())
            << node;
}

TEST(AttachOutput, ReadsTheBinaryFormat) {
    // {"system-entities": [{"dev-entry": "/dev/disk7", "mount-point": "/v"}]}
    const std::string_view binary =
        std::string_view("bplist00\321\001\002_\020\017system-entities\241\003\322\004\005\006\007"
                         "Ydev-entry[mount-pointZ/dev/disk7R/v\010\013\035\037$.:E\000\000\000\000"
                         "\000\000\001\001\000\000\000\000\000\000\000\010\000\000\000\000\000\000"
                         "\000\000\000\000\000\000\000\000\000H",
                         112);
    const MountInfo info = AttachOutput::parse(binary);
    EXPECT_EQ(info.diskDevEntry, "/dev/disk7");
    EXPECT_EQ(info.mountPoint, "/v");
}

TEST(AttachOutput, NeedsAMountPoint) {
    for (const std::string& text :
         {entities(""), entities(entity("/dev/disk4")), list("<dict/>"), list("<array/>"),
          list("<string>x</string>"), entities("<string>x</string>"),
          entities("<dict><key>mount-point</key><integer>1</integer></dict>"),
          list("<dict><key>system-entities</key><string>x</string></dict>")}) {
        try {
            AttachOutput::parse(text);
            ADD_FAILURE() << text;
        } catch (const VaultError& error) {
            EXPECT_EQ(error.kind(), VaultError::Case::mountPointNotFound) << text;
        }
    }
}

TEST(AttachOutput, TellsWhatIsNoPropertyList) {
    for (const std::string& text : {std::string(), std::string("hello"), std::string("bplist00"),
                                    std::string("<plist>"), std::string(3, '\0')})
        EXPECT_THROW(AttachOutput::parse(text), PropertyListError) << text;
}

} // namespace
