# Windows x86-64 with Debian's mingw-w64 cross compilers (posix thread model,
# so std::thread and std::mutex work).  Tests run under wine64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(VK_MINGW_TRIPLE x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
