// record_ops.cpp - record operations that reach into storage: releasing a
// bitmap with or without its attachments, and recomputing Size.
#include "compressed.h"
#include "core.h"

extern "C" {

VK_API int32_t VK_CALL V_FreeImage(BitmapHandle* bitmap, int32_t freeAttachments) {
  return vk::api_call([&]() -> int32_t {
    if (!vk::allocated(bitmap)) return RESULT_OK;
    if (!freeAttachments) {
      // The palette and region survive, owned by whoever holds them elsewhere.
      bitmap->Palette = nullptr;
      bitmap->Region = nullptr;
    }
    V_FreeBitmap(bitmap);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_UpdateBitmapSize(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!vk::allocated(bitmap)) return RESULT_NO_BITMAP;
    if (bitmap->Flags & BITMAP_COMPRESSED) {
      if (!bitmap->Data) return RESULT_NO_BITMAP;
      bitmap->Size = vk::cmp::stored_size(bitmap);
      return RESULT_OK;
    }
    if (bitmap->Flags & BITMAP_SUPER_COMPRESSED) {
      // No super-compressed layout is made by this library; a record that
      // claims one keeps the Size it came with.
      if (!bitmap->Data) return RESULT_NO_BITMAP;
      return RESULT_OK;
    }
    bitmap->Size = bitmap->BytesPerLine * static_cast<uint32_t>(bitmap->Height);
    return RESULT_OK;
  });
}

}  // extern "C"
