# Cross-compiles kx.exe for 64-bit Windows with mingw-w64 (posix threads, so that
# std::thread and std::mutex exist) and runs its tests under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Libraries built for mingw by scripts/build-mingw-deps.sh live under this prefix.
set(KX_MINGW_DEPS "$ENV{KX_MINGW_DEPS}" CACHE PATH "prefix of dependencies built for mingw")
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${KX_MINGW_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# One self-contained kx.exe: no runtime DLLs beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_EXE_LINKER_FLAGS_RELEASE_INIT "-s")

find_program(KX_WINE NAMES wine wine64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KX_WINE})
