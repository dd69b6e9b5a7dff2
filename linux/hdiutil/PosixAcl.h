#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <sys/types.h>
#include <vector>

/// A POSIX access control list as extended attributes carry it: version 2, then tag, permissions
/// and id of each entry, little-endian (Linux, include/uapi/linux/posix_acl_xattr.h).
class PosixAcl {
public:
    /// Nothing when the bytes are not a list.
    static std::optional<PosixAcl> parse(std::span<const std::byte> bytes);
    std::vector<std::byte> format() const;

    bool empty() const noexcept { return entries_.empty(); }
    /// Whether the list says no more than permission bits can.
    bool minimal() const noexcept;
    /// The permission bits that the list amounts to.
    mode_t permissions() const noexcept;
    /// Changes the list as chmod(2) does.
    void setPermissions(mode_t mode) noexcept;
    /// Makes a default list into the access list of a new file: what `mode` does not ask for is
    /// taken away from the list, and what the list does not give from the answer.
    mode_t restrictFor(mode_t mode) noexcept;

private:
    struct Entry {
        std::uint16_t tag = 0;
        std::uint16_t permissions = 0;
        std::uint32_t id = 0;
    };

    Entry* find(std::uint16_t tag) noexcept;
    const Entry* find(std::uint16_t tag) const noexcept;
    /// The entry that the group permission bits stand for.
    Entry* groupClass() noexcept;

    std::vector<Entry> entries_;
};
