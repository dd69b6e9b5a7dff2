#pragma once

#include "FuseOperations.h"

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>

/// What the callbacks of `FuseOperations` share: who is asked, and how an answer is given.
namespace FuseOperations {

/// We are the only writer, so what the kernel knows of the volume stays true.
inline constexpr double forever = 365.0 * 24 * 3600;

inline Context& contextOf(fuse_req_t request) {
    return *static_cast<Context*>(fuse_req_userdata(request));
}

inline Ext4Volume& volumeOf(fuse_req_t request) {
    return contextOf(request).volume;
}

/// FUSE numbers the root 1, ext4 numbers it 2; ext4's 1 is never shown.
inline ext2_ino_t inodeOf(fuse_ino_t node) {
    return node == FUSE_ROOT_ID ? Ext4Volume::root : static_cast<ext2_ino_t>(node);
}

inline fuse_ino_t nodeOf(ext2_ino_t inode) {
    return inode == Ext4Volume::root ? FUSE_ROOT_ID : inode;
}

inline Caller callerOf(fuse_req_t request) {
    const fuse_ctx* context = fuse_req_ctx(request);
    return {context->uid, context->gid, context->umask, context->pid};
}

/// The one way in which a request is answered: `work` replies, or throws.
template <typename Work> void answer(fuse_req_t request, Work work) noexcept {
    int error = EIO;
    try {
        work();
        return;
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    } catch (const std::exception&) {
        error = EIO;
    }
    volumeOf(request).noteFailure(error);
    fuse_reply_err(request, error);
}

/// For work that has nothing to say but that it is done.
template <typename Work> void confirm(fuse_req_t request, Work work) noexcept {
    answer(request, [&] {
        work();
        fuse_reply_err(request, 0);
    });
}

/// What the kernel is told of an inode, which it references from then on.
inline fuse_entry_param entryFor(Ext4Volume& volume, const struct stat& attributes) {
    fuse_entry_param entry{};
    const auto inode = static_cast<ext2_ino_t>(attributes.st_ino);
    entry.ino = nodeOf(inode);
    entry.generation = volume.generation(inode);
    entry.attr = attributes;
    entry.attr_timeout = forever;
    entry.entry_timeout = forever;
    return entry;
}

} // namespace FuseOperations
