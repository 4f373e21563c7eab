// dispatch.cpp - the display dispatch table (20 optional hooks installed by
// the display module) and the file dispatch word (the file module's own
// pointer).  Both are process-wide and unlocked: modules install them once at
// their start-up, before image operations run.
#include "host.h"

#include <atomic>
#include <cstring>

#include "core.h"

namespace vk::host {
namespace {

std::atomic<VK_DISPATCHPROC> g_table[VK_DISPATCH_ENTRIES];
std::atomic<bool> g_initialised{false};
std::atomic<uintptr_t> g_file_word{0};

}  // namespace

VK_DISPATCHPROC dispatch_entry(int n) {
  if (n < 1 || n > VK_DISPATCH_ENTRIES) return nullptr;
  return g_table[n - 1].load(std::memory_order_acquire);
}

void reset_on_attach() {
  // Once a table has been installed (or the first reset has run) nothing is
  // cleared: a display module's table survives later resets.
  if (!g_initialised.load()) {
    for (auto& e : g_table) e.store(nullptr);
  }
  g_initialised.store(true);
}

}  // namespace vk::host

extern "C" {

// Installs all 20 entries; entry 1 decides whether V_GetDisDispatch reports
// the table as present.  A null array is refused rather than read.
VK_API int32_t VK_CALL V_SetDisDispatch(VK_DISPATCHPROC const* table) {
  return vk::api_call([&]() -> int32_t {
    if (!table) return RESULT_BAD_PARAMETER;
    for (int i = 0; i < VK_DISPATCH_ENTRIES; ++i) vk::host::g_table[i].store(table[i]);
    vk::host::g_initialised.store(true);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetDisDispatch(VK_DISPATCHPROC* tableOut) {
  return vk::api_call([&]() -> int32_t {
    if (!tableOut) return RESULT_BAD_PARAMETER;
    if (!vk::host::g_table[0].load()) return RESULT_NOT_SET;
    for (int i = 0; i < VK_DISPATCH_ENTRIES; ++i) tableOut[i] = vk::host::g_table[i].load();
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_ResetDisDispatch(void) {
  return vk::api_call([]() -> int32_t {
    vk::host::reset_on_attach();
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_SetFilDispatch(const uintptr_t* value) {
  return vk::api_call([&]() -> int32_t {
    if (!value) return RESULT_BAD_PARAMETER;
    vk::host::g_file_word.store(*value);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetFilDispatch(uintptr_t* valueOut) {
  return vk::api_call([&]() -> int32_t {
    if (!valueOut) return RESULT_BAD_PARAMETER;
    const uintptr_t w = vk::host::g_file_word.load();
    if (w == 0) return RESULT_NOT_SET;
    *valueOut = w;
    return RESULT_OK;
  });
}

}  // extern "C"
