# Shared part of the mingw-w64 toolchain files; VK_MINGW_TRIPLE names the target.
set(CMAKE_C_COMPILER ${VK_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VK_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VK_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${VK_MINGW_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${VK_MINGW_TRIPLE}-ranlib CACHE FILEPATH "")
set(VK_DLLTOOL ${VK_MINGW_TRIPLE}-dlltool)
set(VK_OBJDUMP ${VK_MINGW_TRIPLE}-objdump)

set(CMAKE_FIND_ROOT_PATH /usr/${VK_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The runtime (libgcc, libstdc++, winpthread) is linked into the programs
# (the DLL asks for it itself): none needs a DLL beyond the system's own.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
