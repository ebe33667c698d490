# Cross-builds the project for 64-bit Windows with mingw-w64 (posix threads). Qt comes from
# the static build that scripts/build-qt-windows.sh caches; its prefix is CORVALEN_QT_WINDOWS
# (a cache variable or the environment).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

if(NOT CORVALEN_QT_WINDOWS AND DEFINED ENV{CORVALEN_QT_WINDOWS})
    set(CORVALEN_QT_WINDOWS "$ENV{CORVALEN_QT_WINDOWS}")
endif()
set(CORVALEN_QT_WINDOWS "${CORVALEN_QT_WINDOWS}" CACHE PATH "Qt for Windows (static) prefix")
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${CORVALEN_QT_WINDOWS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Static C and C++ runtimes: the programs import system DLLs only.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,--gc-sections")
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
# What ships is stripped.
set(CMAKE_EXE_LINKER_FLAGS_MINSIZEREL_INIT "-s")
set(CMAKE_EXE_LINKER_FLAGS_RELEASE_INIT "-s")
