#include "linux/hdiutil/AttachReport.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <string>

namespace {

std::string textAt(plist_t dictionary, const char* key) {
    char* text = nullptr;
    plist_get_string_val(plist_dict_get_item(dictionary, key), &text);
    std::string result = text != nullptr ? text : "";
    std::free(text);
    return result;
}

TEST(AttachReportTest, plistHoldsAnyMountPoint) {
    for (const char* mountPoint : {"/home/u/Volumes/Docs", "/v/<a>&\"'", "/v/line\nfeed\ttab",
                                   "/v/ two  blanks ", "/v/Käse 写真 😀"}) {
        const std::string xml = attachReportPlist({"/dev/disk42", mountPoint});
        EXPECT_EQ(xml.substr(0, 5), "<?xml");
        plist_t root = nullptr;
        plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
        plist_t entities = plist_dict_get_item(root, "system-entities");
        ASSERT_EQ(plist_array_get_size(entities), 1U);
        plist_t entity = plist_array_get_item(entities, 0);
        EXPECT_EQ(textAt(entity, "dev-entry"), "/dev/disk42");
        EXPECT_EQ(textAt(entity, "mount-point"), mountPoint);
        plist_free(root);
    }
}

TEST(AttachReportTest, line) {
    EXPECT_EQ(attachReportLine({"/dev/disk1", "/a b"}), "/dev/disk1\t/a b\n");
}

} // namespace
