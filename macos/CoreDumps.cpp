#include "Quillvane/Platform.h"

#include <sys/resource.h>

void Platform::disableCoreDumps() noexcept {
    // Best effort: a program that may not do this is no reason to refuse the user's work.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}
