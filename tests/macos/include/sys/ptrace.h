#pragma once

// The compiler's collection of the system's headers lacks this one. What follows is declared as the
// manual page ptrace(2) of macOS has it.

#include <sys/types.h>

#define PT_DENY_ATTACH 31

extern "C" int ptrace(int request, pid_t pid, caddr_t addr, int data);
