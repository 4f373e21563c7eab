// compression_change.cpp - converting a whole bitmap between packed and
// compressed 1-bit storage (V_ChangeBitmapCompression and its toggle).
//
// The conversion builds a complete new record (a duplicate record with
// storage, then a row-by-row copy) and only then frees the old storage and
// copies the new record over the caller's, so any failure leaves the
// caller's bitmap exactly as it was.

#include "core.h"
#include "op.h"
#include "record_copy.h"

extern "C" {

VK_API int32_t VK_CALL V_ChangeBitmapCompression(BitmapHandle* bitmap, int32_t mode) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
    if (mode < 0 || mode > 2) return RESULT_BAD_PARAMETER;
    const uint32_t kinds = BITMAP_COMPRESSED | BITMAP_SUPER_COMPRESSED;
    const uint32_t flags = bitmap->Flags;
    const bool compressed = flags & BITMAP_COMPRESSED, super = flags & BITMAP_SUPER_COMPRESSED;
    if ((mode == 1 && compressed) || (mode == 2 && super) || (mode == 0 && !compressed && !super)) return RESULT_OK;
    if (mode == 2) return RESULT_FAIL;  // no super-compressed storage in this library

    vk::SuspendStatus quiet;
    // The duplicate picks its storage from the source's flags, so the
    // source carries the target form while it is made.
    bitmap->Flags = (flags & ~kinds) | (mode == 1 ? BITMAP_COMPRESSED : 0u);
    vk::op::Scratch fresh;
    fresh.shares(true, true);  // the duplicate uses the caller's palette and region
    const int32_t r =
        vk::duplicate_record(fresh.get(), bitmap, bitmap->Width, bitmap->Height, bitmap->BitsPerPixel, true);
    bitmap->Flags = flags;
    if (r != RESULT_OK) return r;

    // Reading the rows moves the source's row cache; a failed change puts
    // it back so that the caller's record is exactly as it was.
    vk::op::CacheGuard cache(bitmap);
    VK_TRY(vk::copy_bitmap_data(fresh.get(), bitmap));
    cache.dismiss();
    vk::op::commit(fresh, bitmap);
    if (bitmap->Flags & BITMAP_COMPRESSED) V_TrimBitmapHeap(bitmap);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_ToggleBitmapCompression(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED) || bitmap->BitsPerPixel != 1) return RESULT_NO_BITMAP;
    const bool packed = !(bitmap->Flags & (BITMAP_COMPRESSED | BITMAP_SUPER_COMPRESSED));
    return V_ChangeBitmapCompression(bitmap, packed ? 1 : 0);
  });
}

}  // extern "C"
