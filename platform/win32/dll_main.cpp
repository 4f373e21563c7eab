// dll_main.cpp - the library's entry point when it is VKKRN13N.dll: process
// attach sets up the runtime, thread detach releases the ending thread's
// settings, process detach frees the slot and the critical section.  A
// thread gets its settings on its first call that needs them, so thread
// attach has nothing to do.
#include <windows.h>

#include "platform.h"
#include "win32_internal.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  switch (reason) {
    case DLL_PROCESS_ATTACH: vk::plat::on_process_attach(); break;
    case DLL_THREAD_DETACH: vk::plat::win32::thread_detach(); break;
    case DLL_PROCESS_DETACH: vk::plat::on_process_detach(); break;
    default: break;
  }
  return TRUE;
}
