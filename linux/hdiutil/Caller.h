#pragma once

#include <sys/types.h>

/// Who makes a request. One without a process is root.
struct Caller {
    uid_t user = 0;
    gid_t group = 0;
    mode_t umask = 0;
    pid_t process = 0; ///< the thread that waits for the answer

    /// Whether the caller is in the group, or is root. Slow unless the answer is in the caller: to
    /// be asked only where it matters.
    bool actsFor(gid_t wanted) const;
    /// Whether files stay set-user-id and set-group-id when the caller writes to them: for root, if
    /// it has CAP_FSETID. Slow.
    bool keepsBits() const;
};
