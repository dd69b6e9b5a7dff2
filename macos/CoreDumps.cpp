#include "Quillvane/Platform.h"

#include <sys/types.h>

#include <sys/ptrace.h>
#include <sys/resource.h>

void Platform::disableCoreDumps() noexcept {
    // Best effort: a program that may not do this is no reason to refuse the user's work. The
    // second call refuses debuggers, which read memory, and ends a program that one has started.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    ptrace(PT_DENY_ATTACH, 0, nullptr, 0);
}
