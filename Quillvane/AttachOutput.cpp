#include "AttachOutput.h"

#include "PropertyListError.h"
#include "VaultError.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

namespace AttachOutput {
namespace {

struct Release {
    void operator()(void* list) const noexcept { plist_free(list); }
};
using List = std::unique_ptr<void, Release>;

List readList(std::string_view bytes) {
    plist_t list = nullptr;
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) throw PropertyListError();
    const auto length = static_cast<std::uint32_t>(bytes.size());
    // plist_from_memory() would do, but its parameters differ from release to release.
    if (plist_is_binary(bytes.data(), length) != 0)
        plist_from_bin(bytes.data(), length, &list);
    else
        plist_from_xml(bytes.data(), length, &list);
    if (list == nullptr) throw PropertyListError();
    return List(list);
}

std::optional<std::string> text(plist_t dictionary, const char* key) {
    const plist_t node = plist_dict_get_item(dictionary, key);
    if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    std::uint64_t length = 0;
    const char* characters = plist_get_string_ptr(node, &length);
    if (characters == nullptr) return std::nullopt;
    return std::string(characters, length);
}

bool isWholeDisk(std::string_view node) {
    constexpr std::string_view prefix = "/dev/disk";
    return node.size() > prefix.size() && node.starts_with(prefix) &&
           std::ranges::all_of(node.substr(prefix.size()),
                               [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

MountInfo parse(std::string_view bytes) {
    const List list = readList(bytes);
    if (plist_get_node_type(list.get()) != PLIST_DICT) throw VaultError::mountPointNotFound();
    const plist_t entities = plist_dict_get_item(list.get(), "system-entities");
    if (entities == nullptr || plist_get_node_type(entities) != PLIST_ARRAY)
        throw VaultError::mountPointNotFound();

    std::optional<std::string> diskDevEntry;
    std::optional<std::string> mountPoint;
    for (std::uint32_t i = 0; i < plist_array_get_size(entities); ++i) {
        const plist_t entity = plist_array_get_item(entities, i);
        if (plist_get_node_type(entity) != PLIST_DICT) throw VaultError::mountPointNotFound();
        const auto mount = text(entity, "mount-point");
        if (!mountPoint && mount && !mount->empty()) mountPoint = mount;
        const auto node = text(entity, "dev-entry");
        if (!diskDevEntry && node && isWholeDisk(*node)) diskDevEntry = node;
    }
    if (!mountPoint) throw VaultError::mountPointNotFound();
    return {diskDevEntry, *mountPoint};
}

} // namespace AttachOutput
