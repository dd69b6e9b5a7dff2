// Preloaded into user-mode Linux, so that it runs on processors whose register state is larger than
// it knows, as those with AMX have it.
//
// It saves and restores the extended registers of its processes with a buffer that ends after
// AVX-512. Reading a part is allowed; but the host refuses to write one (EFAULT) and the first
// process ends. Here what is missing is filled with zeros: the header before it says which parts
// are in use, and whatever lies behind the buffer never is.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace {

// Not on the stack, as a thread of that kernel has only four pages of it; and one suffices, as it
// runs on a single thread.
char wholeState[64 * 1024];

using Ptrace = long (*)(__ptrace_request, pid_t, void*, void*);

Ptrace original() {
    static const auto function = reinterpret_cast<Ptrace>(dlsym(RTLD_NEXT, "ptrace"));
    return function;
}

} // namespace

extern "C" long ptrace(__ptrace_request request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    const pid_t process = va_arg(arguments, pid_t);
    void* const address = va_arg(arguments, void*);
    void* const data = va_arg(arguments, void*);
    va_end(arguments);

    const long result = original()(request, process, address, data);
    const bool isExtendedState =
        request == PTRACE_SETREGSET && reinterpret_cast<std::uintptr_t>(address) == NT_X86_XSTATE;
    // Which error it was cannot be told: a signal handler of that kernel may have changed errno.
    if (result != -1 || !isExtendedState) return result;

    const auto* part = static_cast<const iovec*>(data);
    if (part->iov_len > sizeof wholeState) return result;
    std::memcpy(wholeState, part->iov_base, part->iov_len);
    std::memset(wholeState + part->iov_len, 0, sizeof wholeState - part->iov_len);
    iovec whole{wholeState, sizeof wholeState};
    return original()(request, process, address, &whole);
}
