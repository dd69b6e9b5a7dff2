#include "Calls.h"

#include <linux/audit.h>
#include <linux/fs.h>
#include <linux/seccomp.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <fcntl.h>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_AARCH64;
#else
#error "the calls' numbers are known for two processors only"
#endif

constexpr Effect change = Effect::change;
constexpr Effect grow = Effect::grow;

constexpr Operand fd(int argument) {
    return {argument, Operand::none};
}
constexpr Operand path(int argument) {
    return {Operand::none, argument};
}
constexpr Operand at(int directory, int argument) {
    return {directory, argument};
}

constexpr std::uint32_t making = O_CREAT | O_TRUNC | (O_TMPFILE & ~O_DIRECTORY);

constexpr Call calls[] = {
    {SYS_write, "write", grow, fd(0)},
    {SYS_writev, "writev", grow, fd(0)},
    {SYS_pwrite64, "pwrite64", grow, fd(0)},
    {SYS_pwritev, "pwritev", grow, fd(0)},
    {SYS_pwritev2, "pwritev2", grow, fd(0)},
    {SYS_sendfile, "sendfile", grow, fd(0)},
    {SYS_splice, "splice", grow, fd(2)},
    {SYS_copy_file_range, "copy_file_range", grow, fd(2)},
    {SYS_fallocate, "fallocate", grow, fd(0)},
    {SYS_truncate, "truncate", change, path(0)},
    {SYS_ftruncate, "ftruncate", change, fd(0)},
    {SYS_fsync, "fsync", change, fd(0)},
    {SYS_fdatasync, "fdatasync", change, fd(0)},
    {SYS_syncfs, "syncfs", change, fd(0)},
    {SYS_sync_file_range, "sync_file_range", change, fd(0)},
    {SYS_openat, "openat", grow, at(0, 1), {}, 2, making},
    {SYS_mkdirat, "mkdirat", grow, at(0, 1)},
    {SYS_mknodat, "mknodat", grow, at(0, 1)},
    {SYS_symlinkat, "symlinkat", grow, at(1, 2)},
    {SYS_linkat, "linkat", grow, at(0, 1), at(2, 3)},
    {SYS_unlinkat, "unlinkat", change, at(0, 1)},
    {SYS_renameat2, "renameat2", change, at(0, 1), at(2, 3)},
    {SYS_fchmod, "fchmod", change, fd(0)},
    {SYS_fchmodat, "fchmodat", change, at(0, 1)},
    {SYS_fchown, "fchown", change, fd(0)},
    {SYS_fchownat, "fchownat", change, at(0, 1)},
    {SYS_utimensat, "utimensat", change, at(0, 1)},
    {SYS_setxattr, "setxattr", grow, path(0)},
    {SYS_lsetxattr, "lsetxattr", grow, path(0)},
    {SYS_fsetxattr, "fsetxattr", grow, fd(0)},
    {SYS_removexattr, "removexattr", change, path(0)},
    {SYS_lremovexattr, "lremovexattr", change, path(0)},
    {SYS_fremovexattr, "fremovexattr", change, fd(0)},
    {SYS_umount2, "umount2", change, path(0)},
    {SYS_ioctl, "ioctl", Effect::control, fd(0)},
    {SYS_mmap, "mmap", Effect::map, fd(4), {}, 3, MAP_SHARED},
    {SYS_io_uring_setup, "io_uring_setup", Effect::unseen, {}},
    {SYS_io_submit, "io_submit", Effect::unseen, {}},
#ifdef SYS_openat2
    {SYS_openat2, "openat2", grow, at(0, 1)},
#endif
#ifdef SYS_fchmodat2
    {SYS_fchmodat2, "fchmodat2", change, at(0, 1)},
#endif
#ifdef SYS_setxattrat
    {SYS_setxattrat, "setxattrat", grow, at(0, 1)},
    {SYS_removexattrat, "removexattrat", change, at(0, 1)},
#endif
#ifdef SYS_renameat
    {SYS_renameat, "renameat", change, at(0, 1), at(2, 3)},
#endif
#ifdef SYS_open // the calls that newer processors no longer have
    {SYS_open, "open", grow, path(0), {}, 1, making},
    {SYS_creat, "creat", grow, path(0)},
    {SYS_mkdir, "mkdir", grow, path(0)},
    {SYS_mknod, "mknod", grow, path(0)},
    {SYS_symlink, "symlink", grow, path(1)},
    {SYS_link, "link", grow, path(0), path(1)},
    {SYS_unlink, "unlink", change, path(0)},
    {SYS_rmdir, "rmdir", change, path(0)},
    {SYS_rename, "rename", change, path(0), path(1)},
    {SYS_chmod, "chmod", change, path(0)},
    {SYS_chown, "chown", change, path(0)},
    {SYS_lchown, "lchown", change, path(0)},
    {SYS_utime, "utime", change, path(0)},
    {SYS_utimes, "utimes", change, path(0)},
    {SYS_futimesat, "futimesat", change, at(0, 1)},
#endif
};

// Both processors store the lower half of an argument first.
constexpr std::uint32_t lowerHalf(int argument) {
    return static_cast<std::uint32_t>(offsetof(seccomp_data, args)) +
           8 * static_cast<std::uint32_t>(argument);
}

} // namespace

const Call& callOf(long number) {
    const auto* found = std::ranges::find(calls, number, &Call::number);
    if (found == std::end(calls))
        throw std::runtime_error("asked about system call " + std::to_string(number));
    return *found;
}

bool changesDisk(std::uint64_t request) {
    constexpr std::array<std::uint64_t, 5> changing{
        FICLONE, FICLONERANGE, FIDEDUPERANGE, FS_IOC_SETFLAGS, FS_IOC_FSSETXATTR,
    };
    return std::ranges::find(changing, request) != changing.end();
}

std::vector<sock_filter> callFilter() {
    std::vector<sock_filter> program{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, architecture, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    const sock_filter ask = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    for (const Call& call : calls) {
        const auto number = static_cast<std::uint32_t>(call.number);
        if (call.flagsArgument == Operand::none) {
            program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
            program.push_back(ask);
            continue;
        }
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 4));
        program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, lowerHalf(call.flagsArgument)));
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, call.flags, 0, 1));
        program.push_back(ask);
        program.push_back(allow);
    }
    program.push_back(allow);
    return program;
}
