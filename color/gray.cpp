// gray.cpp - gray classification of palettes and bitmaps, and conversion of
// a bitmap of any depth to a gray bitmap of 8, 12 or 16 bits.
//
// The conversion builds the gray bitmap in a temporary record and replaces
// the caller's record only after the last row, so a failure or a stop asked
// by the status callback leaves the caller's bitmap untouched.
//
// Row work is two stages, each specialised per depth by templates:
//   source row -> one 16-bit value per pixel, already in the new depth's scale
//   values     -> packed 8-, 12- or 16-bit gray row.
// The kernel is chosen once per bitmap, never per pixel.

#include "gray.h"

#include <cstring>

#include "core.h"
#include "op.h"
#include "palette.h"

namespace vk {
namespace {


// ---- stage 1: source pixels to gray values -------------------------------------

// Palette indices of Bits (1..8) bits, MSB first, through a per-index table.
template <int Bits>
void indices_to_values(const uint8_t* src, uint16_t* out, int32_t width, const uint16_t* lut) {
  constexpr uint32_t mask = (1u << Bits) - 1u;
  if constexpr (Bits == 8) {
    for (int32_t i = 0; i < width; ++i) out[i] = lut[src[i]];
  } else {
    uint32_t pos = 0;
    for (int32_t i = 0; i < width; ++i, pos += Bits) {
      const uint32_t byte = pos >> 3, off = pos & 7u;
      uint32_t v;
      if (off + Bits <= 8)
        v = (src[byte] >> (8u - Bits - off)) & mask;
      else  // straddles two bytes: read them as one big-endian word
        v = ((static_cast<uint32_t>(src[byte]) << 8 | src[byte + 1]) >> (16u - Bits - off)) & mask;
      out[i] = lut[v];
    }
  }
}

// 5-5-5 colour; RedHigh: red in bits 10-14 (order 1), else blue there.
template <bool RedHigh>
void rgb555_to_values(const uint8_t* src, uint16_t* out, int32_t width, const uint16_t* scale) {
  for (int32_t i = 0; i < width; ++i) {
    const uint32_t w = src[2 * i] | static_cast<uint32_t>(src[2 * i + 1]) << 8;
    const uint32_t hi = widen5((w >> 10) & 31u), mid = widen5((w >> 5) & 31u), lo = widen5(w & 31u);
    out[i] = scale[RedHigh ? gray_level(hi, mid, lo) : gray_level(lo, mid, hi)];
  }
}

// Colour pixels of Bytes bytes with 8-bit (Wide false) or 16-bit little-endian
// channels (Wide true: the high byte is used); Bgr: blue first in memory.
template <int Bytes, bool Wide, bool Bgr>
void colour_to_values(const uint8_t* src, uint16_t* out, int32_t width, const uint16_t* scale) {
  constexpr int c = Wide ? 2 : 1;    // bytes per channel
  constexpr int hi = Wide ? 1 : 0;   // offset of the byte that counts
  for (int32_t i = 0; i < width; ++i, src += Bytes) {
    const uint32_t first = src[hi], second = src[c + hi], third = src[2 * c + hi];
    out[i] = scale[Bgr ? gray_level(third, second, first) : gray_level(first, second, third)];
  }
}

// Gray samples of 12 or 16 bits.  Without a lookup table the significant
// bits (range) are rescaled to `dst_bits`: narrowing keeps the top bits,
// widening scales by (2^dst - 1) / mask, truncating.  With a lookup table in
// force each value's entry goes through the gray formula instead.
struct GraySource {
  gray::Range range;
  int32_t dst_bits;
  const RGBQUAD* lut;  // null when no table is in force
  uint32_t lut_length;
  const uint16_t* scale;
};

inline uint16_t gray_sample(uint32_t raw, const GraySource& g) {
  const uint32_t v = (raw >> g.range.shift) & g.range.mask;
  if (g.lut) {
    if (v >= g.lut_length) return 0;
    const RGBQUAD& e = g.lut[v];
    return g.scale[gray_level(e.rgbRed, e.rgbGreen, e.rgbBlue)];
  }
  if (g.range.count >= g.dst_bits) return static_cast<uint16_t>(v >> (g.range.count - g.dst_bits));
  return static_cast<uint16_t>(v * ((1u << g.dst_bits) - 1u) / g.range.mask);
}

template <int Bits>
void gray_to_values(const uint8_t* src, uint16_t* out, int32_t width, const GraySource& g) {
  if constexpr (Bits == 12) {
    for (int32_t i = 0; i < width; ++i) {
      const uint8_t* p = src + 3 * (i >> 1);
      const uint32_t raw = (i & 1) ? (p[1] >> 4) | static_cast<uint32_t>(p[2]) << 4
                                   : p[0] | static_cast<uint32_t>(p[1] & 0x0Fu) << 8;
      out[i] = gray_sample(raw, g);
    }
  } else {
    for (int32_t i = 0; i < width; ++i)
      out[i] = gray_sample(src[2 * i] | static_cast<uint32_t>(src[2 * i + 1]) << 8, g);
  }
}

// ---- stage 2: values to a packed gray row ----------------------------------------

template <int Bits>
void pack_values(const uint16_t* v, uint8_t* dst, int32_t width) {
  if constexpr (Bits == 8) {
    for (int32_t i = 0; i < width; ++i) dst[i] = static_cast<uint8_t>(v[i]);
  } else if constexpr (Bits == 16) {
    for (int32_t i = 0; i < width; ++i) {
      dst[2 * i] = static_cast<uint8_t>(v[i]);
      dst[2 * i + 1] = static_cast<uint8_t>(v[i] >> 8);
    }
  } else {  // 12: pixel 2m in the low 12 bits at byte 3m, pixel 2m+1 in the high 12 bits at 3m+1
    int32_t i = 0;
    for (; i + 1 < width; i += 2, dst += 3) {
      const uint32_t a = v[i] & 0xFFFu, b = v[i + 1] & 0xFFFu;
      dst[0] = static_cast<uint8_t>(a);
      dst[1] = static_cast<uint8_t>((a >> 8) | (b << 4));
      dst[2] = static_cast<uint8_t>(b >> 4);
    }
    if (i < width) {
      const uint32_t a = v[i] & 0xFFFu;
      dst[0] = static_cast<uint8_t>(a);
      dst[1] = static_cast<uint8_t>((dst[1] & 0xF0u) | (a >> 8));
    }
  }
}

// ---- kernel choice -----------------------------------------------------------------

enum class Kind { indices, rgb555, colour, gray };

using IndexFn = void (*)(const uint8_t*, uint16_t*, int32_t, const uint16_t*);
using GrayFn = void (*)(const uint8_t*, uint16_t*, int32_t, const GraySource&);
using PackFn = void (*)(const uint16_t*, uint8_t*, int32_t);

constexpr IndexFn kIndexKernels[9] = {nullptr,
                                      indices_to_values<1>, indices_to_values<2>, indices_to_values<3>,
                                      indices_to_values<4>, indices_to_values<5>, indices_to_values<6>,
                                      indices_to_values<7>, indices_to_values<8>};

// The colour kernel of a depth and order; null when the depth is no colour depth.
IndexFn colour_kernel(int32_t bits, bool bgr) {
  switch (bits) {
    case 16: return bgr ? rgb555_to_values<true> : rgb555_to_values<false>;
    case 24: return bgr ? colour_to_values<3, false, true> : colour_to_values<3, false, false>;
    case 32: return bgr ? colour_to_values<4, false, true> : colour_to_values<4, false, false>;
    case 48: return bgr ? colour_to_values<6, true, true> : colour_to_values<6, true, false>;
    case 64: return bgr ? colour_to_values<8, true, true> : colour_to_values<8, true, false>;
    default: return nullptr;
  }
}

PackFn pack_kernel(int32_t bits) {
  return bits == 8 ? pack_values<8> : bits == 12 ? pack_values<12> : pack_values<16>;
}

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

  Kind kind;
  IndexFn index_fn = nullptr;
  GrayFn gray_fn = nullptr;
  uint16_t lut[256];
  GraySource gsrc{};
  if (sbits >= 1 && sbits <= 8) {
    kind = Kind::indices;
    index_fn = kIndexKernels[sbits];
    // Palette read once; a bitmap without one reads as the fixed palette of its depth.
    RGBQUAD pal[kMaxPaletteEntries];
    uint32_t n = read_bitmap_palette(src, pal);
    const RGBQUAD* entries = pal;
    if (n == 0) {
      entries = V_IntGetFixedPalette(sbits);
      n = entries ? 1u << sbits : 0u;
    }
    for (uint32_t i = 0; i < 256; ++i)
      lut[i] = i < n ? scale[gray_level(entries[i].rgbRed, entries[i].rgbGreen, entries[i].rgbBlue)] : 0;
  } else if (src_gray) {
    kind = Kind::gray;
    gray_fn = sbits == 12 ? gray_to_values<12> : gray_to_values<16>;
    gsrc.range = gray::range(sbits, sbits, src->LowBit, src->HighBit);
    gsrc.dst_bits = bits;
    gsrc.scale = scale;
    if (lut_in_force(src)) {
      gsrc.lut = reinterpret_cast<const RGBQUAD*>(src->GrayLut);
      gsrc.lut_length = src->GrayLutLength;
    }
  } else {
    // 24 and 48 bits in the second colour space are brought to BGR first.
    const bool bgr = src->Order == ORDER_BGR || alt;
    index_fn = colour_kernel(alt ? 24 : sbits, bgr);
    if (!index_fn) return RESULT_BAD_BITS_PER_PIXEL;
    kind = sbits == 16 ? Kind::rgb555 : Kind::colour;
  }
  const PackFn pack_fn = pack_kernel(bits);

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
      switch (kind) {
        case Kind::indices: index_fn(row, values.get(), width, lut); break;
        case Kind::rgb555:
        case Kind::colour: index_fn(row, values.get(), width, scale); break;
        case Kind::gray: gray_fn(row, values.get(), width, gsrc); break;
      }
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
