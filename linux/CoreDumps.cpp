#include "Quillvane/Platform.h"

#include <sys/prctl.h>
#include <sys/resource.h>

void Platform::disableCoreDumps() noexcept {
    // Best effort: a program that may not do this is no reason to refuse the user's work. The limit
    // is for dumps into files; a dump into a crash reporter's pipe asks for the second only.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0);
}
