// static_entry.cpp - the entry points of the library when it is linked into
// a program (the tests) instead of loaded as a DLL: the program's start-up
// and exit play process attach and detach, and a TLS callback brings thread
// detach, as DllMain does for the DLL.  Compiled into each program that
// links the static library.
#include <windows.h>

#include "platform.h"
#include "win32_internal.h"

namespace {

__attribute__((constructor)) void process_attach() { vk::plat::on_process_attach(); }
__attribute__((destructor)) void process_detach() { vk::plat::on_process_detach(); }

void NTAPI on_tls_event(PVOID, DWORD reason, PVOID) {
  if (reason == DLL_THREAD_DETACH) vk::plat::win32::thread_detach();
}

}  // namespace

// The loader calls every entry of the .CRT$XL* sections on thread events.
extern "C" __attribute__((section(".CRT$XLB"), used)) const PIMAGE_TLS_CALLBACK vk_tls_event = on_tls_event;
