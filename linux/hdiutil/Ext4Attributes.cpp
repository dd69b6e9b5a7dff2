// The extended attributes of a volume's inodes, and the access control lists among them.

#include "Ext4Volume.h"

#include "Ext2Error.h"
#include "PosixAcl.h"

#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

const std::string accessAcl = "system.posix_acl_access";
const std::string capabilities = "security.capability";
const std::string defaultAcl = "system.posix_acl_default";
/// Where the volume's own name is kept; not an attribute of the user's.
constexpr std::string_view ownPrefix = "trusted.quillvane.";
constexpr std::string_view trustedPrefix = "trusted.";
/// Stands in an inode before its attributes (ext4's EXT4_XATTR_MAGIC).
constexpr __u32 attributeMagic = 0xEA020000;

bool isOwn(ext2_ino_t inode, std::string_view name) {
    return inode == Ext4Volume::root && name.starts_with(ownPrefix);
}

bool isAccessList(std::string_view name) {
    return name == accessAcl || name == defaultAcl;
}

void requireSupported(const std::string& name) {
    constexpr std::array<std::string_view, 3> prefixes = {"user.", "security.", trustedPrefix};
    for (const std::string_view prefix : prefixes) {
        if (name == prefix) failWith(EINVAL);
        if (name.starts_with(prefix)) return;
    }
    if (!isAccessList(name)) failWith(EOPNOTSUPP);
}

} // namespace

Ext4Volume::AttributeHandle Ext4Volume::openAttributes(const Ext4Inode& inode) {
    ext2_xattr_handle* handle = nullptr;
    check(ext2fs_xattrs_open(fs_, inode.number, &handle));
    AttributeHandle owner(handle);
    check(ext2fs_xattrs_read(handle));
    return owner;
}

/// Quick to say no: every write asks.
bool Ext4Volume::mayHaveAttributes(const Ext4Inode& inode) {
    if (inode.raw.i_file_acl != 0 || inode.raw.osd2.linux2.l_i_file_acl_high != 0) return true;
    const std::size_t size = EXT2_INODE_SIZE(fs_->super);
    const std::size_t start = EXT2_GOOD_OLD_INODE_SIZE + inode.raw.i_extra_isize;
    if (start + sizeof(__u32) > size) return false;
    std::vector<char> record(size);
    check(ext2fs_read_inode_full(fs_, inode.number, reinterpret_cast<ext2_inode*>(record.data()),
                                 static_cast<int>(size)));
    __u32 magic = 0;
    std::memcpy(&magic, record.data() + start, sizeof magic);
    return ext2fs_le32_to_cpu(magic) == attributeMagic;
}

std::optional<std::vector<std::byte>> Ext4Volume::readAttribute(const Ext4Inode& inode,
                                                                const std::string& name) {
    if (!mayHaveAttributes(inode)) return std::nullopt;
    const AttributeHandle handle = openAttributes(inode);
    void* value = nullptr;
    std::size_t size = 0;
    const errcode_t code = ext2fs_xattr_get(handle.get(), name.c_str(), &value, &size);
    if (code == EXT2_ET_EA_KEY_NOT_FOUND) return std::nullopt;
    check(code);
    const auto* bytes = static_cast<const std::byte*>(value);
    std::vector<std::byte> copy(bytes, bytes + size);
    ext2fs_free_mem(&value);
    return copy;
}

void Ext4Volume::writeAttribute(const Ext4Inode& inode, const std::string& name,
                                std::span<const std::byte> value) {
    const AttributeHandle handle = openAttributes(inode);
    static constexpr std::byte nothing{};
    check(ext2fs_xattr_set(handle.get(), name.c_str(), value.empty() ? &nothing : value.data(),
                           value.size()));
}

void Ext4Volume::eraseAttribute(const Ext4Inode& inode, const std::string& name) {
    const AttributeHandle handle = openAttributes(inode);
    check(ext2fs_xattr_remove(handle.get(), name.c_str()));
}

/// For files only, which others have none of. Before any change of the inode is in the copy alone.
void Ext4Volume::loseCapabilities(Ext4Inode& inode) {
    try {
        if (!inode.isRegular() || !readAttribute(inode, capabilities)) return;
    } catch (const std::system_error& error) {
        // Nobody else can read attributes that are damaged either.
        if (error.code().value() == EUCLEAN) return;
        throw;
    }
    eraseAttribute(inode, capabilities);
    inode = load(inode.number);
}

/// Answers whether the copy has lost any.
bool Ext4Volume::loseBits(Ext4Inode& inode, const Caller& caller, bool ownerChanges) {
    if ((inode.mode() & (S_ISUID | S_ISGID)) == 0 || inode.isDirectory()) return false;
    if (!ownerChanges && (!inode.isRegular() || caller.keepsBits())) return false;
    mode_t lost = S_ISUID;
    if ((inode.mode() & S_IXGRP) != 0 || !caller.actsFor(inode.group())) lost |= S_ISGID;
    if ((inode.mode() & lost) == 0) return false;
    inode.raw.i_mode &= static_cast<__u16>(~lost);
    if (bitsLost_) bitsLost_(inode.number);
    return true;
}

bool Ext4Volume::loseBits(Ext4Inode& inode, const Caller& caller, const Changes& changes) {
    if (changes.owner || changes.group) return loseBits(inode, caller, true);
    if (changes.size) return loseBits(inode, caller, false);
    // What is left of a chown that names neither owner nor group; the kernel lets anybody ask. It
    // asks the same before root writes to a file with capabilities, which so loses more than it
    // must.
    const bool nothing = !changes.mode && !changes.accessed && !changes.modified;
    const bool entitled = caller.user == 0 || caller.user == inode.owner();
    return nothing && entitled && loseBits(inode, caller, true);
}

void Ext4Volume::stampChange(ext2_ino_t number) {
    Ext4Inode inode = load(number);
    inode.setChanged(Ext4Inodes::now());
    store(inode);
}

std::vector<std::byte> Ext4Volume::attribute(ext2_ino_t number, const std::string& name) {
    const std::lock_guard lock(mutex_);
    requireSupported(name);
    if (isOwn(number, name)) failWith(ENODATA);
    auto value = readAttribute(load(number), name);
    if (!value) failWith(ENODATA);
    if (isAccessList(name)) {
        // On the disk an entry that names nobody has no id; here it has the id that means that.
        if (const auto acl = PosixAcl::parse(*value)) return acl->format();
    }
    return std::move(*value);
}

std::string Ext4Volume::attributeNames(ext2_ino_t number, bool privileged) {
    const std::lock_guard lock(mutex_);
    const Ext4Inode inode = load(number);
    std::string names;
    if (!mayHaveAttributes(inode)) return names;
    struct Collector {
        ext2_ino_t inode;
        bool privileged;
        std::string& names;
    } collector{number, privileged, names};
    const auto collect = [](char* name, char*, std::size_t, void* data) {
        const auto& target = *static_cast<Collector*>(data);
        const std::string_view text(name);
        if (isOwn(target.inode, text)) return 0;
        if (!target.privileged && text.starts_with(trustedPrefix)) return 0;
        target.names.append(text).push_back('\0');
        return 0;
    };
    const AttributeHandle handle = openAttributes(inode);
    check(ext2fs_xattrs_iterate(handle.get(), collect, &collector));
    return names;
}

void Ext4Volume::setAttribute(ext2_ino_t number, const std::string& name,
                              std::span<const std::byte> value, int flags, const Caller& caller) {
    const std::lock_guard lock(mutex_);
    requireSupported(name);
    if (isOwn(number, name)) failWith(EPERM);
    const Ext4Inode inode = load(number);
    const bool exists = readAttribute(inode, name).has_value();
    if ((flags & XATTR_CREATE) != 0 && exists) failWith(EEXIST);
    if ((flags & XATTR_REPLACE) != 0 && !exists) failWith(ENODATA);
    beginChange();
    if (name == accessAcl)
        setAccessAcl(number, value, caller);
    else
        writeAttribute(inode, name, value);
    stampChange(number);
}

void Ext4Volume::removeAttribute(ext2_ino_t number, const std::string& name) {
    const std::lock_guard lock(mutex_);
    requireSupported(name);
    const Ext4Inode inode = load(number);
    if (isOwn(number, name)) failWith(ENODATA);
    if (!readAttribute(inode, name)) {
        if (isAccessList(name)) return; // a list that says nothing more than the mode is not kept
        failWith(ENODATA);
    }
    beginChange();
    eraseAttribute(inode, name);
    stampChange(number);
}

/// An access list also sets the permission bits, and is kept only when it says more than they do.
void Ext4Volume::setAccessAcl(ext2_ino_t number, std::span<const std::byte> bytes,
                              const Caller& caller) {
    const auto acl = PosixAcl::parse(bytes);
    if (!acl) failWith(EINVAL);
    Ext4Inode inode = load(number);
    if (acl->empty() || acl->minimal()) {
        if (readAttribute(inode, accessAcl)) eraseAttribute(inode, accessAcl);
    } else {
        writeAttribute(inode, accessAcl, bytes);
    }
    if (acl->empty()) return;
    inode = load(number);
    inode.raw.i_mode =
        static_cast<__u16>((inode.mode() & ~static_cast<mode_t>(0777)) | acl->permissions());
    if ((inode.mode() & S_ISGID) != 0 && !caller.actsFor(inode.group()))
        inode.raw.i_mode &= static_cast<__u16>(~S_ISGID);
    store(inode);
}

void Ext4Volume::followModeInAcl(Ext4Inode& inode) {
    if (inode.isSymlink()) return;
    const auto value = readAttribute(inode, accessAcl);
    if (!value) return;
    auto acl = PosixAcl::parse(*value);
    if (!acl) return;
    acl->setPermissions(inode.mode());
    writeAttribute(inode, accessAcl, acl->format());
}

bool Ext4Volume::inheritAcl(ext2_ino_t parent, Ext4Inode& inode) {
    const auto value = readAttribute(load(parent), defaultAcl);
    if (!value) return false;
    auto acl = PosixAcl::parse(*value);
    if (!acl || acl->empty()) return false;
    inode.raw.i_mode = static_cast<__u16>(acl->restrictFor(inode.mode()));
    store(inode);
    if (inode.isDirectory()) writeAttribute(inode, defaultAcl, *value);
    if (!acl->minimal()) writeAttribute(inode, accessAcl, acl->format());
    inode = load(inode.number);
    return true;
}
