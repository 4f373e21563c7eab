// create.cpp - V_CreateBitmap: a record, its storage and its palette in one
// call.

#include "core.h"
#include "palette.h"

extern "C" VK_API int32_t VK_CALL V_CreateBitmap(BitmapHandle* bitmap, int32_t memoryType, int32_t width,
                                                 int32_t height, int32_t bitsPerPixel, int32_t order,
                                                 const RGBQUAD* palette, int32_t viewPerspective, void* data,
                                                 uint32_t dataSize) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    // Depth 0 asks for 8-bit pixels with a gray palette.
    VK_TRY(V_InitBitmap(bitmap, width, height, bitsPerPixel == 0 ? 8 : bitsPerPixel));
    // The second colour space exists only for 24- and 48-bit pixels; refused
    // before any storage is made.
    if (order == ORDER_BGR_ALT && bitsPerPixel != 24 && bitsPerPixel != 48) return RESULT_BAD_BITS_PER_PIXEL;
    VK_TRY(V_AllocateBitmap(bitmap, memoryType));

    if (bitmap->BitsPerPixel <= 8) {
      bitmap->Flags &= ~PALETTE_IS_TABLE;
      int32_t r = RESULT_OK;
      if (bitsPerPixel == 0) {
        bitmap->Palette = V_CreateGrayPalette(8);
      } else if (palette) {
        bitmap->Palette = V_CreatePalette(palette, static_cast<int32_t>(bitmap->ColorCount));
      } else {
        r = V_CreateBitmapFixedPalette(bitmap);
      }
      // Without its palette the bitmap is of no use: give the storage back.
      if (r != RESULT_OK || !bitmap->Palette) {
        V_FreeBitmap(bitmap);
        return r == RESULT_OK ? RESULT_FAIL : r;
      }
    } else {
      bitmap->Order = order;
    }

    bitmap->ViewPerspective = viewPerspective;

    if (memoryType == TYPE_USER && data) VK_TRY(V_SetBitmapDataPointer(bitmap, data, dataSize));
    return RESULT_OK;
  });
}
