#include "PosixAcl.h"

#include <sys/stat.h>

#include <algorithm>

namespace {

constexpr std::uint32_t version = 2;
constexpr std::size_t headerSize = 4;
constexpr std::size_t entrySize = 8;
constexpr std::uint16_t userObject = 0x01;
constexpr std::uint16_t user = 0x02;
constexpr std::uint16_t groupObject = 0x04;
constexpr std::uint16_t group = 0x08;
constexpr std::uint16_t mask = 0x10;
constexpr std::uint16_t other = 0x20;
constexpr std::uint32_t noId = 0xffffffff;

std::uint32_t readLittle(std::span<const std::byte> bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = bytes.size(); i > 0; --i)
        value = value << 8 | std::to_integer<std::uint32_t>(bytes[i - 1]);
    return value;
}

void appendLittle(std::vector<std::byte>& bytes, std::uint32_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
        bytes.push_back(static_cast<std::byte>(value >> (8 * i)));
}

} // namespace

std::optional<PosixAcl> PosixAcl::parse(std::span<const std::byte> bytes) {
    if (bytes.size() < headerSize || (bytes.size() - headerSize) % entrySize != 0 ||
        readLittle(bytes.first(headerSize)) != version)
        return std::nullopt;
    PosixAcl acl;
    for (bytes = bytes.subspan(headerSize); !bytes.empty(); bytes = bytes.subspan(entrySize)) {
        Entry entry;
        entry.tag = static_cast<std::uint16_t>(readLittle(bytes.first(2)));
        entry.permissions = static_cast<std::uint16_t>(readLittle(bytes.subspan(2, 2)));
        // Only these two kinds name somebody.
        const bool named = entry.tag == user || entry.tag == group;
        entry.id = named ? readLittle(bytes.subspan(4, 4)) : noId;
        acl.entries_.push_back(entry);
    }
    return acl;
}

std::vector<std::byte> PosixAcl::format() const {
    std::vector<std::byte> bytes;
    appendLittle(bytes, version, headerSize);
    for (const Entry& entry : entries_) {
        appendLittle(bytes, entry.tag, 2);
        appendLittle(bytes, entry.permissions, 2);
        appendLittle(bytes, entry.id, 4);
    }
    return bytes;
}

const PosixAcl::Entry* PosixAcl::find(std::uint16_t tag) const noexcept {
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& entry) { return entry.tag == tag; });
    return found == entries_.end() ? nullptr : &*found;
}

PosixAcl::Entry* PosixAcl::find(std::uint16_t tag) noexcept {
    return const_cast<Entry*>(static_cast<const PosixAcl*>(this)->find(tag));
}

PosixAcl::Entry* PosixAcl::groupClass() noexcept {
    Entry* limit = find(mask);
    return limit != nullptr ? limit : find(groupObject);
}

bool PosixAcl::minimal() const noexcept {
    return std::all_of(entries_.begin(), entries_.end(), [](const Entry& entry) {
        return entry.tag == userObject || entry.tag == groupObject || entry.tag == other;
    });
}

mode_t PosixAcl::permissions() const noexcept {
    mode_t mode = 0;
    if (const Entry* entry = find(userObject)) mode |= (entry->permissions & 7U) << 6;
    const Entry* limit = find(mask);
    if (limit == nullptr) limit = find(groupObject);
    if (limit != nullptr) mode |= (limit->permissions & 7U) << 3;
    if (const Entry* entry = find(other)) mode |= entry->permissions & 7U;
    return mode;
}

void PosixAcl::setPermissions(mode_t mode) noexcept {
    if (Entry* entry = find(userObject)) entry->permissions = mode >> 6 & 7;
    if (Entry* entry = groupClass()) entry->permissions = mode >> 3 & 7;
    if (Entry* entry = find(other)) entry->permissions = mode & 7;
}

mode_t PosixAcl::restrictFor(mode_t mode) noexcept {
    const mode_t allowed = permissions() & mode & 0777;
    setPermissions(allowed);
    return (mode & ~static_cast<mode_t>(0777)) | allowed;
}
