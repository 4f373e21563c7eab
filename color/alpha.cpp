// alpha.cpp - the alpha channel of a bitmap as a separate gray bitmap
// (V_GetBitmapAlpha), and the row kernels that write one back (used by
// V_SetBitmapAlpha, which needs colour resolution and copies and so lives
// with the geometry).
//
// A 64-bit bitmap gives a 16-bit gray result, every other depth an 8-bit
// one; depths without an alpha channel give zeros (fully transparent).  The
// result is built aside and handed to the caller's record at the end.
#include "alpha.h"

#include <cstring>

#include "core.h"
#include "dispatch.h"
#include "op.h"
#include "pixel_format.h"

namespace vk::alpha {
namespace {

// ---- reading: pixels -> alpha row ----------------------------------------------------
using GetFn = void (*)(const uint8_t* pixels, uint8_t* alpha, uint32_t count);

void get16(const uint8_t* p, uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) a[x] = (le16(p + 2 * x) & 0x8000u) ? 255 : 0;
}
void get32(const uint8_t* p, uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) a[x] = p[4 * x + 3];
}
void get64(const uint8_t* p, uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) put_le16(a + 2 * x, le16(p + 8 * x + 6));
}
GetFn get_kernel(int32_t bits) { return bits == 16 ? get16 : bits == 32 ? get32 : bits == 64 ? get64 : nullptr; }

// ---- writing: alpha row -> pixels ----------------------------------------------------
void set16_from1(uint8_t* p, const uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) {
    const uint32_t v = le16(p + 2 * x) & 0x7FFFu;
    put_le16(p + 2 * x, (a[x >> 3] & (0x80u >> (x & 7))) ? v | 0x8000u : v);
  }
}
void set16_from8(uint8_t* p, const uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) {
    const uint32_t v = le16(p + 2 * x) & 0x7FFFu;
    put_le16(p + 2 * x, a[x] >= 128 ? v | 0x8000u : v);
  }
}
void set32(uint8_t* p, const uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) p[4 * x + 3] = a[x];
}
void set64(uint8_t* p, const uint8_t* a, uint32_t n) {
  for (uint32_t x = 0; x < n; ++x) {
    p[8 * x + 6] = a[2 * x];
    p[8 * x + 7] = a[2 * x + 1];
  }
}

int32_t get_alpha(BitmapHandle* src, BitmapHandle* alpha_out) {
  const int32_t bits = src->BitsPerPixel == 64 ? 16 : 8;
  op::Scratch out;
  VK_TRY(V_InitBitmap(out.get(), src->Width, src->Height, bits));
  if (bits == 16) out->Order = ORDER_GRAY;
  out->ViewPerspective = src->ViewPerspective;
  out->XResolution = src->XResolution;
  out->YResolution = src->YResolution;
  const uint32_t src_bpl = src->BytesPerLine, dst_bpl = out->BytesPerLine;
  Buffer<uint8_t> src_row, dst_row;
  if (!src_row.allocate(src_bpl) || !dst_row.allocate(dst_bpl, true)) return RESULT_FAIL;
  VK_TRY(V_AllocateBitmap(out.get(), (src->Flags & BITMAP_ON_DISK) ? TYPE_DISK : TYPE_CONVENTIONAL));
  if (auto hook = reinterpret_cast<VK_REGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(2)))) {
    const int32_t r = hook(out.get(), src, 0, 0);
    if (r != RESULT_OK) return r;
  }
  // The gray palette of 8 bits, also for a 16-bit result.
  out->Palette = V_CreateGrayPalette(8);
  if (!out->Palette) return RESULT_FAIL;

  const GetFn kernel = get_kernel(src->BitsPerPixel);
  op::CacheGuard restore_cache(src);
  {
    BitmapLock lock_src(src), lock_dst(out.get());
    VK_TRY(op::for_each_row({out->Height}, [&](int32_t y) -> int32_t {
      if (kernel) {
        const int32_t got = V_GetBitmapRow(src, src_row.get(), uint32_t(y), int32_t(src_bpl));
        if (got < 0) return got;
        kernel(src_row.get(), dst_row.get(), uint32_t(src->Width));
      }
      const int32_t put = V_PutBitmapRow(out.get(), dst_row.get(), uint32_t(y), int32_t(dst_bpl));
      return put < 0 ? put : int32_t{RESULT_OK};
    }));
  }
  op::hand_over(out, alpha_out);
  return RESULT_OK;
}

}  // namespace

SetFn set_kernel(int32_t bits, int32_t alpha_bits) {
  if (bits == 16) return alpha_bits == 1 ? set16_from1 : alpha_bits == 8 ? set16_from8 : nullptr;
  if (bits == 32) return alpha_bits == 8 ? set32 : nullptr;
  if (bits == 64) return alpha_bits == 16 ? set64 : nullptr;
  return nullptr;
}

}  // namespace vk::alpha

extern "C" VK_API int32_t VK_CALL V_GetBitmapAlpha(BitmapHandle* bitmap, BitmapHandle* alphaOut) {
  return vk::api_call([&]() -> int32_t {
    if (!vk::allocated(bitmap) || !alphaOut || !vk::sound_geometry(*bitmap)) return RESULT_BAD_PARAMETER;
    return vk::alpha::get_alpha(bitmap, alphaOut);
  });
}
