# For CMake on Linux: builds for macOS with the compiler in COMPILER, for ARCHITECTURE, with the
# folder HEADERS, which holds those of the libraries (both made by `compile` and `compiler` beside
# this file). What is linked would be of no use: there are no libraries of that system.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES COMPILER ARCHITECTURE HEADERS)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${ARCHITECTURE})
set(CMAKE_OSX_SYSROOT "")
string(REPLACE arm64 aarch64 triple ${ARCHITECTURE}-macos.13.0)
foreach(language C CXX OBJCXX)
    set(CMAKE_${language}_COMPILER ${COMPILER} c++)
    set(CMAKE_${language}_COMPILER_TARGET ${triple})
endforeach()
set(CMAKE_C_COMPILER ${COMPILER} cc)
# To find this out, CMake would link a program: the compiler would make a C++ library first.
set(CMAKE_OBJCXX_COMPILER_ID_RUN TRUE)
set(CMAKE_OBJCXX_COMPILER_ID Clang)
set(CMAKE_OBJCXX_COMPILER_VERSION 16.0.6)
set(CMAKE_OBJCXX_COMPILER_FRONTEND_VARIANT GNU)
set(CMAKE_OBJCXX_STANDARD_COMPUTED_DEFAULT 14)
set(CMAKE_AR /usr/bin/llvm-ar)
set(CMAKE_RANLIB /usr/bin/llvm-ranlib)
set(CMAKE_INSTALL_NAME_TOOL /bin/false)

# Nothing of all this is run, so it is neither made fast nor fit for a debugger.
set(CMAKE_CXX_FLAGS_INIT "-O0 -g0 -fno-sanitize=undefined -isystem ${CMAKE_CURRENT_LIST_DIR}/include -isystem ${HEADERS} -isystem ${HEADERS}/machine")
# GNUstep's headers are told of a runtime that is neither of those they know, and Apple's that they
# are not for Objective-C, where their classes would be declared twice.
set(CMAKE_OBJCXX_FLAGS_INIT "${CMAKE_CXX_FLAGS_INIT} -D__GNU_LIBOBJC__=20110608 -DOS_OBJECT_USE_OBJC=0 -isystem /usr/include/GNUstep -Wno-unused-command-line-argument")
