#pragma once

// The compiler's collection of the system's headers lacks this one. What follows is declared as the
// manual pages listxattr(2) and getxattr(2) of macOS have it.

#include <sys/types.h>

#define XATTR_NOFOLLOW 0x0001

extern "C" {
ssize_t listxattr(const char* path, char* namebuf, size_t size, int options);
ssize_t getxattr(const char* path, const char* name, void* value, size_t size, uint32_t position,
                 int options);
}
