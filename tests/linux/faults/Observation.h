#pragma once

#include "Calls.h"

#include <linux/seccomp.h>

#include <string>
#include <string_view>

/// What a waiting system call is about. All of it is learned from the kernel's tables and the
/// caller's memory, and no file system is asked: its server may itself be waiting for an answer.
struct Observation {
    /// "volume" for what lies in a file system that a program serves, otherwise "disk".
    std::string place;
    /// Relative to the directory that is watched.
    std::string path;
    /// Of a call with two.
    std::string secondPath;
    /// Lies neither below the directory that is watched nor is it that directory.
    bool elsewhere = true;

    /// `directory` is absolute, without links and without a slash at its end.
    static Observation of(const seccomp_notif& request, const Call& call,
                          std::string_view directory);
};

/// The program that a process runs: its file's name, and the first argument of one that has several
/// commands.
std::string programOf(pid_t process);

/// Whether an open file may be written to.
bool isWritable(pid_t process, int fd);
