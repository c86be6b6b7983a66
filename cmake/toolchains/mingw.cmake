# Cross-compiles for 64-bit Windows with Debian's MinGW-w64; the programs run under Wine. The libraries come from
# tools/build_windows_dependencies.sh, which names its prefix in KV_WINDOWS_PREFIX.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
# The programs bring all they need with them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KV_WINDOWS_PREFIX)
set(CMAKE_FIND_ROOT_PATH "${KV_WINDOWS_PREFIX}" /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
