# Windows programs built on another system with MinGW-w64, and run there under Wine. What they
# stand on lies in a prefix of its own, filled by scripts/windows:
#   CORVELLE_WINDOWS_DEPS   that prefix (default: ~/.cache/corvelle/windows)
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# The variant with POSIX threads: the other one has no std::thread.
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_CROSSCOMPILING_EMULATOR wine)

# The run-time libraries go into the program: one file to ship, and nothing for Wine to look for.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

if(DEFINED ENV{CORVELLE_WINDOWS_DEPS})
    set(CMAKE_FIND_ROOT_PATH "$ENV{CORVELLE_WINDOWS_DEPS}")
else()
    set(CMAKE_FIND_ROOT_PATH "$ENV{HOME}/.cache/corvelle/windows")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
