// fill.cpp - V_FillBitmap: every pixel takes the stored value of one colour,
// converted as V_PutPixelColor converts it.  The filled image is built in a
// new record of the same storage kind (compressed 1-bit rows become
// all-white or all-black records) and replaces the caller's only when every
// row is written, so a cancelled or failed fill leaves the pixels as they
// were.
#include "geometry.h"
#include "op.h"
#include "pixel.h"

namespace vk {

int32_t fill_bitmap(BitmapHandle* b, uint32_t color) {
  VK_TRY(check_bitmap(b));
  if (!valid_bitmap_depth(b->BitsPerPixel)) return RESULT_BAD_BITS_PER_PIXEL;
  uint64_t value = 0;
  VK_TRY(pixel_value(b, color, value));
  const int32_t bpl = static_cast<int32_t>(b->BytesPerLine);
  Buffer<uint8_t> row(size_t(bpl), true);
  if (!row) return RESULT_FAIL;
  fill_pixels(row.get(), b->BitsPerPixel, 0, uint32_t(b->Width), value);

  op::Scratch out;
  VK_TRY(dup_shared(out, b, b->Width, b->Height));
  {
    BitmapLock lock(out.get());
    VK_TRY(op::for_each_row(op::Rows{b->Height}, [&](int32_t y) -> int32_t {
      const int32_t put = V_PutBitmapRow(out.get(), row.get(), uint32_t(y), bpl);
      return put < 0 ? put : int32_t{RESULT_OK};
    }));
  }
  op::commit(out, b);
  return RESULT_OK;
}

}  // namespace vk

extern "C" VK_API int32_t VK_CALL V_FillBitmap(BitmapHandle* bitmap, uint32_t color) {
  return vk::api_call([&] { return vk::fill_bitmap(bitmap, color); });
}
