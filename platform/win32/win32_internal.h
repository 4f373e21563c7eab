// win32_internal.h - what the Windows backend's files and its entry points share.
#pragma once

#include "vkkrn.h"

namespace vk::plat::win32 {

// Thread detach: each slot's value for the ending thread goes to the
// function given at tls_alloc.
void thread_detach();

inline HANDLE handle_of(VK_FILE f) { return reinterpret_cast<HANDLE>(f); }
inline VK_FILE file_of(HANDLE h) { return reinterpret_cast<VK_FILE>(h); }

}  // namespace vk::plat::win32
