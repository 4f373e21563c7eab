// gray.cpp - gray classification of palettes and bitmaps, and conversion of
// a bitmap of any depth to a gray bitmap of 8, 12 or 16 bits.
//
// The conversion builds the gray bitmap in a temporary record and replaces
// the caller's record only after the last row, so a failure or a stop asked
// by the status callback leaves the caller's bitmap untouched.
//
// Row work is two stages, each a template over the pixel layouts:
//   source row -> one 16-bit value per pixel, already in the new depth's scale
//   values     -> packed 8-, 12- or 16-bit gray row.
// The kernels are chosen once per bitmap, never per pixel.

#include "gray.h"

#include <cstring>

#include "core.h"
#include "op.h"
#include "palette.h"
#include "pixel_format.h"

namespace vk {
namespace {


// ---- stage 1: source pixels to gray values -------------------------------------

// What the stage-1 kernels read besides the row.
struct Stage1 {
  const uint16_t* index_value;  // palette index -> value
  const uint16_t* scale;        // 8-bit gray level -> value
  // Gray samples: their significant bits (range); without a lookup table
  // they are rescaled to `dst_bits` (narrowing keeps the top bits, widening
  // scales by (2^dst - 1) / mask, truncating); with a table in force each
  // value's entry goes through the gray formula instead.
  gray::Range range;
  int32_t dst_bits;
  const RGBQUAD* lut;  // null when no table is in force
  uint32_t lut_length;
};

inline uint16_t gray_sample(uint32_t raw, const Stage1& g) {
  const uint32_t v = (raw >> g.range.shift) & g.range.mask;
  if (g.lut) {
    if (v >= g.lut_length) return 0;
    const RGBQUAD& e = g.lut[v];
    return g.scale[gray_level(e.rgbRed, e.rgbGreen, e.rgbBlue)];
  }
  if (g.range.count >= g.dst_bits) return static_cast<uint16_t>(v >> (g.range.count - g.dst_bits));
  return static_cast<uint16_t>(v * ((1u << g.dst_bits) - 1u) / g.range.mask);
}

// Source layout F: palette indices through their table, gray samples through
// their range, colours through the gray formula.
template <class F>
void to_values(const uint8_t* src, uint16_t* out, int32_t width, const Stage1& g) {
  for (int32_t i = 0; i < width; ++i) {
    if constexpr (F::kForm == Form::index) {
      out[i] = g.index_value[F::pixel(src, i)];
    } else if constexpr (F::kForm == Form::sample) {
      out[i] = gray_sample(F::pixel(src, i), g);
    } else {
      const Rgb8 c = F::pixel(src, i);
      out[i] = g.scale[gray_level(c.r, c.g, c.b)];
    }
  }
}

// ---- stage 2: values to a packed gray row ----------------------------------------

template <class F>
void pack_values(const uint16_t* v, uint8_t* dst, int32_t width) {
  put_values<F>(dst, 0, static_cast<uint32_t>(width), v);
}

using ValuesFn = void (*)(const uint8_t*, uint16_t*, int32_t, const Stage1&);
using PackFn = void (*)(const uint16_t*, uint8_t*, int32_t);

bool lut_in_force(const BitmapHandle* b) { return b->GrayLut && (b->Flags & BITMAP_GRAY_FLAG); }

// Narrows a 48-bit row (high bytes) to 24 bits in place.
void narrow48(uint8_t* row, int32_t width) {
  for (int32_t i = 0; i < width; ++i) {
    row[3 * i] = row[6 * i + 1];
    row[3 * i + 1] = row[6 * i + 3];
    row[3 * i + 2] = row[6 * i + 5];
  }
}

int32_t gray_scale(BitmapHandle* src, int32_t bits) {
  const int32_t width = src->Width, height = src->Height, sbits = src->BitsPerPixel;
  const bool alt = src->Order == ORDER_BGR_ALT && (sbits == 24 || sbits == 48);
  const bool src_gray = (sbits == 12 || sbits == 16) && (src->Order == ORDER_GRAY || sbits == 12);

  // Final value of every 8-bit level in the new depth.
  uint16_t scale[256];
  for (uint32_t l = 0; l < 256; ++l) scale[l] = static_cast<uint16_t>(gray::from_level(l, bits));

  Stage1 stage{};
  stage.scale = scale;
  uint16_t index_value[256];
  if (sbits >= 1 && sbits <= 8) {
    // Palette read once; a bitmap without one reads as the fixed palette of its depth.
    RGBQUAD pal[kMaxPaletteEntries];
    uint32_t n = read_bitmap_palette(src, pal);
    const RGBQUAD* entries = pal;
    if (n == 0) {
      entries = V_IntGetFixedPalette(sbits);
      n = entries ? 1u << sbits : 0u;
    }
    for (uint32_t i = 0; i < 256; ++i)
      index_value[i] = i < n ? scale[gray_level(entries[i].rgbRed, entries[i].rgbGreen, entries[i].rgbBlue)] : 0;
    stage.index_value = index_value;
  } else if (src_gray) {
    stage.range = gray::range(sbits, sbits, src->LowBit, src->HighBit);
    stage.dst_bits = bits;
    if (lut_in_force(src)) {
      stage.lut = reinterpret_cast<const RGBQUAD*>(src->GrayLut);
      stage.lut_length = src->GrayLutLength;
    }
  } else if (!(sbits == 16 || sbits == 24 || sbits == 32 || sbits == 48 || sbits == 64)) {
    return RESULT_BAD_BITS_PER_PIXEL;
  }
  // 24 and 48 bits in the second colour space are brought to 24-bit BGR first.
  const bool bgr = src->Order == ORDER_BGR || alt;
  const ValuesFn values_fn = with_layout(alt ? 24 : sbits, src_gray ? kGray : bgr ? kBgr : kRgb,
                                         [](auto layout) -> ValuesFn { return to_values<decltype(layout)>; });
  const PackFn pack_fn = with_layout(bits, kGray, [](auto layout) -> PackFn {
    using F = decltype(layout);
    if constexpr (F::kForm == Form::index || F::kForm == Form::sample) return pack_values<F>;
    else return nullptr;  // gray depths only
  });

  // The gray bitmap, built aside.
  op::Scratch out;
  VK_TRY(V_InitBitmap(out.get(), width, height, bits));
  int32_t memory_type = TYPE_CONVENTIONAL;
  if (V_GetDefaultMemoryType(&memory_type) != RESULT_OK) memory_type = TYPE_CONVENTIONAL;
  VK_TRY(V_AllocateBitmap(out.get(), memory_type));
  if (bits == 8) {
    out->Palette = V_CreateGrayPalette(8);
    if (!out->Palette) return RESULT_FAIL;
  } else {
    out->Order = ORDER_GRAY;
    VK_TRY(V_InitGrayParams(out.get()));
  }
  VK_TRY(V_CopyPlaybackParms(out.get(), src));
  // Same picture, so the same orientation, resolution and dithering choice.
  out->ViewPerspective = src->ViewPerspective;
  out->XResolution = src->XResolution;
  out->YResolution = src->YResolution;
  out->DitheringMethod = src->DitheringMethod;

  const uint32_t src_bpl = src->BytesPerLine, dst_bpl = out->BytesPerLine;
  Buffer<uint8_t> src_row, dst_row;
  Buffer<uint16_t> values;
  // Room for the in-place transform of the second colour space (24-bit stride).
  const size_t src_room = src_bpl + 8;
  if (!src_row.allocate(src_room) || !dst_row.allocate(dst_bpl + 4, true) ||
      !values.allocate(width > 0 ? static_cast<size_t>(width) : 1u))
    return RESULT_FAIL;

  // Reading rows moves the source's row cache; a conversion that does not
  // complete puts it back so the caller's record is exactly as it was.
  op::CacheGuard restore_cache(src);

  Progress progress(height);
  VK_TRY(progress.start());
  {
    BitmapLock lock_src(src), lock_dst(out.get());
    VK_TRY(op::each_row(progress, height, [&](int32_t y) {
      const int32_t got = V_GetBitmapRow(src, src_row.get(), static_cast<uint32_t>(y),
                                         static_cast<int32_t>(src_bpl));
      if (got < 0) return got;
      uint8_t* row = src_row.get();
      if (alt) {
        if (sbits == 48) narrow48(row, width);
        VK_TRY(V_ConvertBuffer(row, width, 24, 24, ORDER_BGR_ALT, ORDER_BGR, nullptr, nullptr));
      }
      values_fn(row, values.get(), width, stage);
      pack_fn(values.get(), dst_row.get(), width);
      const int32_t put = V_PutBitmapRow(out.get(), dst_row.get(), static_cast<uint32_t>(y),
                                         static_cast<int32_t>(dst_bpl));
      return put < 0 ? put : int32_t{RESULT_OK};
    }));
  }
  VK_TRY(progress.finish());

  // Commit: the clip region follows the pixels, the old storage goes, and
  // the caller's record becomes the gray bitmap in one step.
  restore_cache.dismiss();
  op::commit(out, src);
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" VK_API int32_t VK_CALL V_IsGrayScalePalette(const RGBQUAD* entries, int32_t count) {
  return vk::api_call([&]() -> int32_t {
    if (!entries) return RESULT_BAD_PARAMETER;
    for (int32_t i = 0; i < count; ++i)
      if (entries[i].rgbRed != entries[i].rgbGreen || entries[i].rgbRed != entries[i].rgbBlue) return 0;
    const uint8_t first = entries[0].rgbRed;
    if (count < 2) return first == 0 ? 1 : first == 255 ? 2 : 3;

    // The step truncates and the expected value wraps as a byte: 0, 127, 254
    // is a rising ramp of 3 entries, 0, 128, 255 is not.
    const uint32_t step = 255u / static_cast<uint32_t>(count - 1);
    const bool rising = first == 0;
    uint8_t expect = rising ? 0 : 255;
    for (int32_t i = 0; i < count; ++i) {
      if (entries[i].rgbRed != expect) return 3;
      expect = static_cast<uint8_t>(rising ? expect + step : expect - step);
    }
    return rising ? 1 : 2;
  });
}

extern "C" VK_API int32_t VK_CALL V_IsGrayScaleBitmap(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    if (bitmap->Order != ORDER_GRAY) {
      if (bitmap->BitsPerPixel > 8) return 0;
      const uint32_t n = bitmap->ColorCount;
      if (n == 0 || n > vk::kMaxPaletteEntries) return 0;
      RGBQUAD pal[vk::kMaxPaletteEntries];
      if (V_GetBitmapPaletteEntries(bitmap, 0, static_cast<int32_t>(n), pal) != static_cast<int32_t>(n)) return 0;
      return V_IsGrayScalePalette(pal, static_cast<int32_t>(n));
    }
    if (!vk::lut_in_force(bitmap)) return 1;
    const vk::gray::Range r =
        vk::gray::range(bitmap->BitsPerPixel, bitmap->BitsPerPixel, bitmap->LowBit, bitmap->HighBit);
    uint64_t n = uint64_t{1} << r.count;
    // Never look past the table the bitmap owns.
    if (n > bitmap->GrayLutLength) n = bitmap->GrayLutLength;
    const auto* lut = reinterpret_cast<const RGBQUAD*>(bitmap->GrayLut);
    for (uint64_t i = 0; i < n; ++i)
      if (lut[i].rgbRed != lut[i].rgbGreen || lut[i].rgbRed != lut[i].rgbBlue) return 0;
    return 1;
  });
}

extern "C" VK_API int32_t VK_CALL V_GrayScaleBitmap(BitmapHandle* bitmap, int32_t bits) {
  return vk::api_call([&]() -> int32_t {
    VK_TRY(vk::check_bitmap(bitmap));
    if (bits > 16) return RESULT_BAD_BITS_PER_PIXEL;
    if (bits != 8 && bits != 12 && bits != 16) return RESULT_BAD_PARAMETER;

    const bool already = bitmap->Order == ORDER_GRAY && bitmap->BitsPerPixel == bits &&
                         !vk::lut_in_force(bitmap) && bitmap->LowBit <= 0 &&
                         (bitmap->HighBit < 0 || bitmap->HighBit == bits - 1);
    if (already) {
      vk::Progress progress(1);
      VK_TRY(progress.start());
      return progress.finish();
    }
    if (!vk::valid_bitmap_depth(bitmap->BitsPerPixel)) return RESULT_BAD_BITS_PER_PIXEL;
    return vk::gray_scale(bitmap, bits);
  });
}
