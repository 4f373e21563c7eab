// platform_exports.cpp - the platform objects exported to callers (vkkrn_platform.h),
// thin wrappers over the platform layer.
#include "core.h"
#include "platform.h"
#include "vkkrn_platform.h"

namespace {

vk::plat::PaletteEntry to_entry(const RGBQUAD& q) { return {q.rgbRed, q.rgbGreen, q.rgbBlue, 0}; }
RGBQUAD to_quad(const vk::plat::PaletteEntry& e) { return {e.blue, e.green, e.red, 0}; }

}  // namespace

extern "C" {

VK_API VK_HGLOBAL VK_CALL VKP_GlobalAlloc(uint32_t flags, size_t size) {
  return vk::api_call([&] { return vk::plat::global_alloc(flags, size); }, VK_HGLOBAL{nullptr});
}

VK_API void* VK_CALL VKP_GlobalLock(VK_HGLOBAL block) {
  return vk::api_call([&]() -> void* { return block ? vk::plat::global_lock(block) : nullptr; },
                      static_cast<void*>(nullptr));
}

VK_API int32_t VK_CALL VKP_GlobalUnlock(VK_HGLOBAL block) {
  return vk::api_call([&]() -> int32_t { return block && vk::plat::global_unlock(block) ? 1 : 0; }, 0);
}

VK_API VK_HGLOBAL VK_CALL VKP_GlobalFree(VK_HGLOBAL block) {
  return vk::api_call([&]() -> VK_HGLOBAL { return block ? vk::plat::global_free(block) : nullptr; },
                      block);
}

VK_API size_t VK_CALL VKP_GlobalSize(VK_HGLOBAL block) {
  return vk::api_call([&]() -> size_t { return block ? vk::plat::global_size(block) : 0; }, size_t{0});
}

VK_API VK_HGLOBAL VK_CALL VKP_GlobalReAlloc(VK_HGLOBAL block, size_t size, uint32_t flags) {
  return vk::api_call(
      [&]() -> VK_HGLOBAL { return block ? vk::plat::global_realloc(block, size, flags) : nullptr; },
      VK_HGLOBAL{nullptr});
}

VK_API VK_HPALETTE VK_CALL VKP_CreatePalette(const RGBQUAD* entries, uint32_t count) {
  return vk::api_call(
      [&]() -> VK_HPALETTE {
        if (!entries || count == 0 || count > 256) return nullptr;
        vk::plat::PaletteEntry e[256];
        for (uint32_t i = 0; i < count; ++i) e[i] = to_entry(entries[i]);
        return vk::plat::palette_create(e, count);
      },
      VK_HPALETTE{nullptr});
}

VK_API int32_t VK_CALL VKP_DeletePalette(VK_HPALETTE palette) {
  return vk::api_call([&]() -> int32_t { return palette && vk::plat::palette_delete(palette) ? 1 : 0; }, 0);
}

VK_API uint32_t VK_CALL VKP_GetPaletteEntries(VK_HPALETTE palette, uint32_t start, uint32_t count, RGBQUAD* out) {
  return vk::api_call(
      [&]() -> uint32_t {
        if (!palette) return 0;
        if (!out) return vk::plat::palette_count(palette);
        vk::plat::PaletteEntry e[256];
        if (count > 256) count = 256;
        const uint32_t n = vk::plat::palette_get(palette, start, count, e);
        for (uint32_t i = 0; i < n; ++i) out[i] = to_quad(e[i]);
        return n;
      },
      0u);
}

}  // extern "C"
