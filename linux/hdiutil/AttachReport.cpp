#include "AttachReport.h"

#include "ToolError.h"

#include <plist/plist.h>

#include <memory>

namespace {

struct PlistDeleter {
    void operator()(void* node) const { plist_free(node); }
};

} // namespace

std::string attachReportPlist(const Attachment& attachment) {
    plist_t entity = plist_new_dict();
    plist_dict_set_item(entity, "dev-entry", plist_new_string(attachment.device.c_str()));
    plist_dict_set_item(entity, "mount-point", plist_new_string(attachment.mountPoint.c_str()));
    plist_t entities = plist_new_array();
    plist_array_append_item(entities, entity);
    const std::unique_ptr<void, PlistDeleter> root(plist_new_dict());
    plist_dict_set_item(root.get(), "system-entities", entities);

    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    if (xml == nullptr) throw ToolError("the property list could not be written");
    std::string result(xml, length);
    plist_to_xml_free(xml);
    return result;
}

std::string attachReportLine(const Attachment& attachment) {
    return attachment.device + "\t" + attachment.mountPoint.string() + "\n";
}
