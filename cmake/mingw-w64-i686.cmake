# Windows i686 with Debian's mingw-w64 cross compilers (posix thread model):
# the 32-bit VKKRN13N.dll with undecorated standard-call exports.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(VK_MINGW_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
