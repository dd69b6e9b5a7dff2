#pragma once

#include <filesystem>
#include <functional>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

inline constexpr uid_t nobody = 65534;

/// Runs `check` as an ordinary user, in a process of its own when the tests run as the superuser,
/// for whom modes mean nothing. `folder` is given to that user.
inline bool asOrdinaryUser(const std::filesystem::path& folder,
                           const std::function<bool()>& check) {
    if (::geteuid() != 0) return check();
    if (::chown(folder.c_str(), nobody, nobody) != 0) return false;
    const pid_t child = ::fork();
    if (child == 0) {
        const bool dropped =
            ::setgroups(0, nullptr) == 0 && ::setgid(nobody) == 0 && ::setuid(nobody) == 0;
        ::_exit(dropped && check() ? 0 : 1);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0;
}
