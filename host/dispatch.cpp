// dispatch.cpp - the exported calls that install and read the display
// dispatch table and the file dispatch word (the table itself: core/dispatch).
#include "core.h"
#include "dispatch.h"

extern "C" {

// Installs all 20 entries; entry 1 decides whether V_GetDisDispatch reports
// the table as present.  A null array is refused rather than read.
VK_API int32_t VK_CALL V_SetDisDispatch(VK_DISPATCHPROC const* table) {
  return vk::api_call([&]() -> int32_t {
    if (!table) return RESULT_BAD_PARAMETER;
    vk::dispatch::install(table);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetDisDispatch(VK_DISPATCHPROC* tableOut) {
  return vk::api_call([&]() -> int32_t {
    if (!tableOut) return RESULT_BAD_PARAMETER;
    return vk::dispatch::read(tableOut) ? RESULT_OK : RESULT_NOT_SET;
  });
}

VK_API int32_t VK_CALL V_ResetDisDispatch(void) {
  return vk::api_call([]() -> int32_t {
    vk::dispatch::reset_on_attach();
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_SetFilDispatch(const uintptr_t* value) {
  return vk::api_call([&]() -> int32_t {
    if (!value) return RESULT_BAD_PARAMETER;
    vk::dispatch::set_file_word(*value);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetFilDispatch(uintptr_t* valueOut) {
  return vk::api_call([&]() -> int32_t {
    if (!valueOut) return RESULT_BAD_PARAMETER;
    const uintptr_t w = vk::dispatch::file_word();
    if (w == 0) return RESULT_NOT_SET;
    *valueOut = w;
    return RESULT_OK;
  });
}

}  // extern "C"
