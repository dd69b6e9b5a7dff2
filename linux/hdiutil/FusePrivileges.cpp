#include "FusePrivileges.h"

#include "Ext4Volume.h"

#include <fuse_lowlevel.h>
#include <linux/fuse.h>

#include <cstring>
#include <sys/uio.h>
#include <unistd.h>

namespace {

/// The request by which the kernel asks what is supported, while it is being answered. libfuse
/// answers it on the thread that received it.
thread_local std::uint64_t initialization = 0;

ssize_t receive(int connection, void* into, std::size_t size, void*) {
    const ssize_t got = ::read(connection, into, size);
    fuse_in_header header{};
    if (got < static_cast<ssize_t>(sizeof header)) return got;
    std::memcpy(&header, into, sizeof header);
    if (header.opcode == FUSE_INIT) initialization = header.unique;
    return got;
}

/// Adds what libfuse cannot say to the answer that it gives.
void addFlag(const iovec& answer) {
    fuse_init_out what{};
    if (answer.iov_len < sizeof what) return;
    std::memcpy(&what, answer.iov_base, sizeof what);
    what.flags |= FUSE_HANDLE_KILLPRIV_V2;
    std::memcpy(answer.iov_base, &what, sizeof what);
}

ssize_t send(int connection, iovec* parts, int count, void*) {
    if (initialization != 0 && count == 2) {
        fuse_out_header header{};
        std::memcpy(&header, parts[0].iov_base, sizeof header);
        if (header.unique == initialization) {
            if (header.error == 0) addFlag(parts[1]);
            initialization = 0;
        }
    }
    return ::writev(connection, parts, count);
}

} // namespace

bool takeOverPrivileges(fuse_session* session, Ext4Volume& volume) {
    fuse_custom_io io{};
    io.read = receive;
    io.writev = send;
    if (fuse_session_custom_io(session, &io, fuse_session_fd(session)) != 0) return false;
    volume.whenBitsAreLost([session](ext2_ino_t inode) {
        // Of its attributes only. A kernel that does not have the inode in memory says so, and a
        // connection that has ended needs not know.
        (void)fuse_lowlevel_notify_inval_inode(session, inode, -1, 0);
    });
    return true;
}
