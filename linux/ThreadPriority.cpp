#include "Quillvane/ThreadPriority.h"

#include <sys/resource.h>
#include <unistd.h>

void useUtilityPriority() noexcept {
    // On Linux each thread has a nice value of its own.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10);
}
