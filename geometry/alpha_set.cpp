// alpha_set.cpp - V_SetBitmapAlpha: a gray (or 1-bit) bitmap written into
// the alpha channel of a bitmap, in place.
//
// A bitmap without an alpha channel is first converted to 32 bits (64 from
// 48); that conversion stays even when a later step fails.  An alpha bitmap
// that is not gray, not of the depth the channel takes, or stored in
// another view perspective is used through a working copy.  Only the area
// both bitmaps cover is written; the rest keeps its alpha.  Rows are
// changed one after another, so a row I/O failure part-way leaves the rows
// before it written.
#include "alpha.h"
#include "core.h"
#include "op.h"

namespace vk {
namespace {

int32_t set_alpha(BitmapHandle* b, BitmapHandle* alpha) {
  // The calls below are parts of this one; they report no progress.
  SuspendStatus quiet;
  const int32_t bits = b->BitsPerPixel;
  if (bits != 16 && bits != 32 && bits != 64) {
    const uint32_t flags = b->Order != ORDER_RGB || bits < 16 ? RESOLVE_BGR : 0u;
    VK_TRY(V_ColorResBitmap(b, b, bits == 48 ? 64 : 32, flags, nullptr, nullptr, 0, nullptr, 0));
  }
  const int32_t depth = b->BitsPerPixel, gray_bits = depth == 64 ? 16 : 8;

  op::CacheGuard restore_cache(alpha);
  op::Scratch work;
  BitmapHandle* a = alpha;
  const bool fits = alpha->BitsPerPixel == gray_bits || (depth == 16 && alpha->BitsPerPixel == 1);
  if (!fits || alpha->ViewPerspective != b->ViewPerspective || V_IsGrayScaleBitmap(alpha) != 1) {
    VK_TRY(V_CopyBitmap(work.get(), alpha));
    VK_TRY(V_GrayScaleBitmap(work.get(), gray_bits));
    if (work->ViewPerspective != b->ViewPerspective)
      VK_TRY(V_IntChangeBitmapViewPerspective(nullptr, work.get(), b->ViewPerspective,
                                              DUP_ALLOCATE | DUP_OWN_PALETTE));
    a = work.get();
  }
  const alpha::SetFn kernel = alpha::set_kernel(depth, a->BitsPerPixel);
  if (!kernel) return RESULT_BAD_PARAMETER;

  const uint32_t a_bpl = a->BytesPerLine, b_bpl = b->BytesPerLine;
  Buffer<uint8_t> a_row, b_row;
  if (!a_row.allocate(a_bpl) || !b_row.allocate(b_bpl)) return RESULT_FAIL;
  const int32_t rows = a->Height < b->Height ? a->Height : b->Height;
  const uint32_t cols = uint32_t(a->Width < b->Width ? a->Width : b->Width);
  BitmapLock lock_b(b), lock_a(a);
  for (int32_t y = 0; y < rows; ++y) {
    int32_t r = V_GetBitmapRow(a, a_row.get(), uint32_t(y), int32_t(a_bpl));
    if (r < 0) return r;
    r = V_GetBitmapRow(b, b_row.get(), uint32_t(y), int32_t(b_bpl));
    if (r < 0) return r;
    kernel(b_row.get(), a_row.get(), cols);
    r = V_PutBitmapRow(b, b_row.get(), uint32_t(y), int32_t(b_bpl));
    if (r < 0) return r;
  }
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" VK_API int32_t VK_CALL V_SetBitmapAlpha(BitmapHandle* bitmap, BitmapHandle* alpha) {
  return vk::api_call([&]() -> int32_t {
    if (!vk::allocated(bitmap) || !vk::allocated(alpha) || !vk::sound_geometry(*bitmap) ||
        !vk::sound_geometry(*alpha))
      return RESULT_BAD_PARAMETER;
    return vk::set_alpha(bitmap, alpha);
  });
}
