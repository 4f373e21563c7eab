// record.cpp - setting up and copying bitmap records, and the per-thread
// defaults that a new record takes.
#include "core.h"

namespace {
// A resolution default of 0 or below means "not set": records get 150 dpi.
constexpr int32_t kFallbackResolution = 150;
}  // namespace

extern "C" {

VK_API int32_t VK_CALL V_InitBitmap(BitmapHandle* bitmap, int32_t width, int32_t height, int32_t bitsPerPixel) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    std::memset(bitmap, 0, sizeof *bitmap);
    // All three zero is how callers blank a record.
    if (width == 0 && height == 0 && bitsPerPixel == 0) return RESULT_OK;
    if (!vk::valid_bitmap_depth(bitsPerPixel)) return RESULT_BAD_BITS_PER_PIXEL;

    const ThreadSettings& s = vk::settings();
    // Unsigned 32-bit arithmetic throughout; width and height are not checked
    // (a zero Size is refused when storage is requested).
    const uint32_t bpl = vk::bytes_per_line(width, bitsPerPixel);
    bitmap->Width = width;
    bitmap->Height = height;
    bitmap->BitsPerPixel = bitsPerPixel;
    bitmap->BytesPerLine = bpl;
    bitmap->Size = static_cast<uint32_t>(height) * bpl;
    bitmap->DitheringMethod = s.DefaultDithering;
    bitmap->ViewPerspective = 2;
    if (bitsPerPixel <= 8) {
      bitmap->ColorCount = 1u << bitsPerPixel;
      bitmap->Order = ORDER_RGB;
    } else {
      bitmap->Order = bitsPerPixel == 12 ? ORDER_GRAY : ORDER_BGR;
    }
    bitmap->XResolution = s.DefaultXResolution > 0 ? s.DefaultXResolution : kFallbackResolution;
    bitmap->YResolution = s.DefaultYResolution > 0 ? s.DefaultYResolution : kFallbackResolution;
    bitmap->LowBit = 0;
    bitmap->HighBit = bitsPerPixel - 1;
    bitmap->PaintLowBit = 0;
    bitmap->PaintHighBit = bitsPerPixel - 1;
    bitmap->PaintPercent = 100;
    return RESULT_OK;
  });
}

// A shallow copy: both records then name the same storage, palette and
// tables, and only one of them may be freed.
VK_API void VK_CALL V_CopyBitmapHandle(BitmapHandle* destination, const BitmapHandle* source) {
  if (!destination || !source || destination == source) return;
  std::memcpy(destination, source, sizeof *destination);
}

// ---- per-thread defaults ------------------------------------------------------------

VK_API int32_t VK_CALL V_SetDefaultXResolution(int32_t dpi) {
  return vk::api_call([&]() -> int32_t { return std::exchange(vk::settings().DefaultXResolution, dpi); });
}

VK_API int32_t VK_CALL V_SetDefaultYResolution(int32_t dpi) {
  return vk::api_call([&]() -> int32_t { return std::exchange(vk::settings().DefaultYResolution, dpi); });
}

VK_API int32_t VK_CALL V_GetDefaultXResolution(void) {
  return vk::api_call([]() -> int32_t { return vk::settings().DefaultXResolution; });
}

VK_API int32_t VK_CALL V_GetDefaultYResolution(void) {
  return vk::api_call([]() -> int32_t { return vk::settings().DefaultYResolution; });
}

VK_API int32_t VK_CALL V_DefaultDithering(int32_t method) {
  return vk::api_call([&]() -> int32_t {
    if (static_cast<uint32_t>(method) > DITHER_CLUSTERED) return RESULT_BAD_PARAMETER;
    vk::settings().DefaultDithering = method;
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetDefaultDithering(void) {
  return vk::api_call([]() -> int32_t { return vk::settings().DefaultDithering; });
}

// Only conventional memory and disk storage can be the default type.
VK_API int32_t VK_CALL V_SetDefaultMemoryType(int32_t memoryType) {
  return vk::api_call([&]() -> int32_t {
    if (memoryType != TYPE_CONVENTIONAL && memoryType != TYPE_DISK) return RESULT_BAD_PARAMETER;
    vk::settings().DefaultMemoryType = memoryType;
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetDefaultMemoryType(int32_t* memoryType) {
  return vk::api_call([&]() -> int32_t {
    if (!memoryType) return RESULT_BAD_PARAMETER;
    *memoryType = vk::settings().DefaultMemoryType;
    return RESULT_OK;
  });
}

}  // extern "C"
