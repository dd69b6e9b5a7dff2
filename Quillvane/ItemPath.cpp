#include "ItemPath.h"

#include <system_error>

std::filesystem::path itemPath(const std::filesystem::path& path) {
    std::filesystem::path result;
    for (const auto& component : std::filesystem::absolute(path)) {
        if (component.empty() || component == ".") continue;
        if (component != "..") {
            result /= component;
            continue;
        }
        // The parent of a link's target need not be where the link is.
        std::error_code unresolved;
        const auto real = std::filesystem::canonical(result, unresolved);
        result = (unresolved ? result : real).parent_path();
    }
    return result;
}

std::filesystem::path resolvedItemPath(const std::filesystem::path& path) {
    const std::filesystem::path item = itemPath(path);
    std::error_code unresolved;
    const auto directory = std::filesystem::canonical(item.parent_path(), unresolved);
    return unresolved ? item : directory / item.filename();
}

std::optional<std::filesystem::path> targetOfLink(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(path, error)))
        return std::nullopt;
    const auto target = std::filesystem::canonical(path, error);
    return error ? std::nullopt : std::optional(target);
}
