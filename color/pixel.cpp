// pixel.cpp - single-pixel access: colour values in and out of any depth,
// the raw bytes of a pixel, and translation of a colour value between two
// bitmaps.
//
// Each call reads only the bytes that hold the pixel (row-and-column access)
// and keeps the palette on the stack.  Colour value forms:
//   RGB 0x00BBGGRR | COLOR_PALETTE_INDEX | index | COLOR_GRAY16 | 16-bit level.

#include <cstring>

#include "core.h"
#include "dispatch.h"
#include "gray.h"
#include "match.h"
#include "palette.h"
#include "pixel.h"
#include "pixel_format.h"

namespace vk {
namespace {

constexpr uint32_t rgb(uint32_t r, uint32_t g, uint32_t b) { return r | g << 8 | b << 16; }
constexpr uint32_t red_of(uint32_t c) { return c & 0xFFu; }
constexpr uint32_t green_of(uint32_t c) { return (c >> 8) & 0xFFu; }
constexpr uint32_t blue_of(uint32_t c) { return (c >> 16) & 0xFFu; }
inline uint32_t rgb_of(const RGBQUAD& e) { return rgb(e.rgbRed, e.rgbGreen, e.rgbBlue); }

constexpr bool is_index_form(uint32_t c) { return (c >> 24) == 1u; }
constexpr bool is_gray16_form(uint32_t c) { return (c & COLOR_GRAY16) != 0; }
// A 16-bit gray value as a colour: its high byte in all three channels.
constexpr uint32_t gray16_to_rgb(uint32_t c) {
  const uint32_t h = (c >> 8) & 0xFFu;
  return rgb(h, h, h);
}

bool lut_in_force(const BitmapHandle* b) { return b->GrayLut && (b->Flags & BITMAP_GRAY_FLAG); }
bool inside(const BitmapHandle* b, int32_t row, int32_t column) {
  return row >= 0 && row < b->Height && column >= 0 && column < b->Width;
}

// Where a pixel's bytes are fetched: the column handed to row-and-column
// access, how many bytes, and (1-8 bits) the bit position inside them.
struct Spot {
  int32_t column;
  int32_t bytes;
  uint32_t bit;  // stream position of the pixel inside the first byte, MSB = 0
};

bool locate(int32_t bits, int32_t column, Spot& s) {
  const uint32_t c = static_cast<uint32_t>(column);
  switch (bits) {
    case 1:
      // The byte holding the pixel, reached by its first column; the mask
      // also takes the column modulo 65536, a deliberate quirk kept as is.
      s = Spot{static_cast<int32_t>(c & 0xFFF8u), 1, c & 7u};
      return true;
    case 2: s = Spot{column, 1, (c * 2u) & 7u}; return true;
    case 8: s = Spot{column, 1, 0}; return true;
    case 4: s = Spot{static_cast<int32_t>(c & ~1u), 1, (c & 1u) * 4u}; return true;
    case 3: case 5: case 6: case 7: {
      const uint32_t p = static_cast<uint32_t>((static_cast<uint64_t>(c) * static_cast<uint32_t>(bits)) & 7u);
      s = Spot{column, p > 8u - static_cast<uint32_t>(bits) ? 2 : 1, p};
      return true;
    }
    case 12: case 16: s = Spot{column, 2, 0}; return true;
    case 24: case 32: s = Spot{column, 3, 0}; return true;
    case 48: case 64: s = Spot{column, 6, 0}; return true;
    default: return false;
  }
}

// The bitmap's palette on the stack; a bitmap without one reads as the fixed
// palette of its depth, as row conversion does.  Returns the entry count.
uint32_t palette_for(BitmapHandle* b, RGBQUAD out[kMaxPaletteEntries]) {
  uint32_t n = read_bitmap_palette(b, out);
  if (n != 0) return n;
  const RGBQUAD* fixed = V_IntGetFixedPalette(b->BitsPerPixel);
  if (!fixed) return 0;
  n = 1u << b->BitsPerPixel;
  std::memcpy(out, fixed, n * sizeof(RGBQUAD));
  return n;
}

// Gray sample (already range-masked) of a 12- or 16-bit gray bitmap as a colour.
uint32_t gray_sample_colour(const BitmapHandle* b, uint32_t v, const gray::Range& r) {
  if (lut_in_force(b)) {
    if (v >= b->GrayLutLength) return COLOR_INVALID;
    return rgb_of(reinterpret_cast<const RGBQUAD*>(b->GrayLut)[v]);
  }
  if (b->BitsPerPixel == 12 || r.mask < 0xFFFFu) v = v * 0xFFFFu / r.mask;
  return COLOR_GRAY16 | v;
}

// The fetched bytes through the pixel's layout: they start at the pixel, or
// for 1-8 bits at the byte holding its first bit (`bit` places it).
uint32_t stored_index(const uint8_t* p, int32_t bits, uint32_t bit) {
  return with_layout(bits, kRgb, [&](auto layout) -> uint32_t {
    using F = decltype(layout);
    if constexpr (F::kForm == Form::index) return F::at_bit(p, bit);
    else return 0;
  });
}
void store_index(uint8_t* p, int32_t bits, uint32_t bit, uint32_t index) {
  with_layout(bits, kRgb, [&](auto layout) -> int {
    using F = decltype(layout);
    if constexpr (F::kForm == Form::index) F::put_at_bit(p, bit, index);
    return 0;
  });
}

// The colour layouts of one pixel by depth and channel order: a single
// pixel pays for every step on its way to a layout, so this goes straight
// from the depth (callers have ruled out the others).
template <class Fn>
decltype(auto) with_colour_layout(int32_t bits, bool bgr, Fn&& f) {
  switch (bits) {
    case 16: return bgr ? f(Rgb555<true>{}) : f(Rgb555<false>{});
    case 24: return bgr ? f(Rgb8Bytes<true, 3>{}) : f(Rgb8Bytes<false, 3>{});
    case 32: return bgr ? f(Rgb8Bytes<true, 4>{}) : f(Rgb8Bytes<false, 4>{});
    case 48: return bgr ? f(Rgb16Words<true, 6>{}) : f(Rgb16Words<false, 6>{});
    default: return bgr ? f(Rgb16Words<true, 8>{}) : f(Rgb16Words<false, 8>{});
  }
}

Rgb8 stored_colour(const uint8_t* p, int32_t bits, bool bgr) {
  return with_colour_layout(bits, bgr, [&](auto layout) -> Rgb8 { return decltype(layout)::pixel(p, 0); });
}
// 16-bit channels take the byte in both halves.
void store_colour(uint8_t* p, int32_t bits, bool bgr, Rgb8 c) {
  with_colour_layout(bits, bgr, [&](auto layout) {
    using F = decltype(layout);
    if constexpr (F::kForm == Form::rgb8) F::put(p, 0, c);
    else F::put(p, 0, Rgb16{widen8(c.r), widen8(c.g), widen8(c.b)});
  });
}

uint32_t get_pixel_color(BitmapHandle* b, int32_t row, int32_t column) {
  if (!b || !(b->Flags & BITMAP_ALLOCATED) || !inside(b, row, column)) return COLOR_INVALID;
  const int32_t bits = b->BitsPerPixel;
  Spot s;
  if (!locate(bits, column, s)) return 0;  // unknown depth reads as black

  RGBQUAD pal[kMaxPaletteEntries];
  uint32_t colours = 0;
  if (bits <= 8) colours = palette_for(b, pal);
  const bool gray = bits == 12 || (bits == 16 && b->Order == ORDER_GRAY);
  // The bit range only means something for gray samples.
  const gray::Range range = gray ? gray::range(bits, bits, b->LowBit, b->HighBit) : gray::Range{bits, 0, 0};

  uint8_t p[8] = {};
  {
    BitmapLock lock(b);
    if (V_GetBitmapRowCol(b, p, static_cast<uint32_t>(row), s.column, s.bytes) != s.bytes) return COLOR_INVALID;
  }

  if (bits <= 8) {
    const uint32_t index = stored_index(p, bits, s.bit);
    return index < colours ? rgb_of(pal[index]) : 0u;
  }
  if (gray) {
    const uint32_t raw = bits == 12 ? Gray12::at(p, column & 1) : Gray16::pixel(p, 0);
    return gray_sample_colour(b, (raw >> range.shift) & range.mask, range);
  }
  if (b->Order == ORDER_BGR_ALT && (bits == 24 || bits == 48)) {
    // The second colour space is defined on 8-bit channels: narrow first.
    if (bits == 48) {
      p[0] = p[1];
      p[1] = p[3];
      p[2] = p[5];
    }
    V_ConvertBuffer(p, 1, 24, 24, ORDER_BGR_ALT, ORDER_BGR, nullptr, nullptr);
    const Rgb8 c = Rgb8Bytes<true, 3>::pixel(p, 0);
    return rgb(c.r, c.g, c.b);
  }
  const Rgb8 c = stored_colour(p, bits, b->Order == ORDER_BGR);
  return rgb(c.r, c.g, c.b);
}

// The stored value of a colour (see pixel.h).
int32_t colour_value(BitmapHandle* b, uint32_t color, uint64_t& value) {
  const int32_t bits = b->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_BITS_PER_PIXEL;
  const bool gray = bits == 12 || (bits == 16 && b->Order == ORDER_GRAY);
  const bool lut = gray && lut_in_force(b);
  if (is_gray16_form(color) && !lut) color = gray16_to_rgb(color);
  const bool index_form = is_index_form(color);
  const bool gray16 = is_gray16_form(color);

  if (bits <= 8) {
    if (index_form) {
      value = color & 0xFFFFu & ((1u << bits) - 1u);
      return RESULT_OK;
    }
    RGBQUAD pal[kMaxPaletteEntries];
    const uint32_t colours = palette_for(b, pal);
    value = find_palette_index(colours ? pal : nullptr, colours, red_of(color), green_of(color), blue_of(color)) &
            ((1u << bits) - 1u);
    return RESULT_OK;
  }
  if (gray) {
    const gray::Range range = gray::range(bits, bits, b->LowBit, b->HighBit);
    uint32_t v;
    if (index_form) {
      v = color & 0xFFFFu;  // a raw sample (lookup-table index)
    } else if (gray16) {
      v = (color & 0xFFFFu) >> (16 - range.count);
    } else if (lut) {
      uint32_t n = b->GrayLutLength;
      if (n > range.mask + 1u) n = range.mask + 1u;  // only reachable entries
      v = find_palette_index(reinterpret_cast<const RGBQUAD*>(b->GrayLut), n, red_of(color), green_of(color),
                             blue_of(color));
    } else {
      v = gray::from_level(gray_level(red_of(color), green_of(color), blue_of(color)), range.count);
    }
    value = ((v & range.mask) << range.shift) & (bits == 12 ? 0xFFFu : 0xFFFFu);
    return RESULT_OK;
  }
  if (index_form) return RESULT_BAD_PARAMETER;  // no palette to index
  Rgb8 c{static_cast<uint8_t>(red_of(color)), static_cast<uint8_t>(green_of(color)),
         static_cast<uint8_t>(blue_of(color))};
  // The second colour space is built from blue-first channels.
  const bool alt = b->Order == ORDER_BGR_ALT && (bits == 24 || bits == 48);
  if (alt) {
    uint8_t q[4] = {c.b, c.g, c.r, 0};
    VK_TRY(V_ConvertBuffer(q, 1, 24, 24, ORDER_BGR, ORDER_BGR_ALT, nullptr, nullptr));
    c = Rgb8{q[2], q[1], q[0]};
  }
  uint8_t p[8] = {};
  store_colour(p, bits, b->Order == ORDER_BGR || alt, c);
  value = le64(p);
  return RESULT_OK;
}

int32_t put_pixel_color(BitmapHandle* b, int32_t row, int32_t column, uint32_t color) {
  if (!b || !(b->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  // The display module may own the position test (clip region); its answer
  // replaces the range check.  Storage outside the bitmap is never written
  // whatever the hook says.
  if (VK_DISPATCHPROC hook = dispatch::entry(17)) {
    const auto at = reinterpret_cast<VK_PIXELPOSHOOK>(reinterpret_cast<void (*)(void)>(hook));
    if (at(b, row, column) == 0) return RESULT_BAD_AREA;
  }
  if (!inside(b, row, column)) return RESULT_BAD_AREA;

  const int32_t bits = b->BitsPerPixel;
  Spot s;
  if (!locate(bits, column, s)) return RESULT_BAD_BITS_PER_PIXEL;
  uint64_t value = 0;
  VK_TRY(colour_value(b, color, value));

  BitmapLock lock(b);
  uint8_t p[8] = {};
  const uint32_t r = static_cast<uint32_t>(row);
  // Pixels that share bytes with neighbours are merged into what is stored.
  if (bits <= 8 || bits == 12) {
    const int32_t got = V_GetBitmapRowCol(b, p, r, s.column, s.bytes);
    if (got < 0) return got;
    if (got != s.bytes) return RESULT_FAIL;
  }
  if (bits <= 8)
    store_index(p, bits, s.bit, static_cast<uint32_t>(value));
  else if (bits == 12)
    Gray12::put_at(p, column & 1, static_cast<uint32_t>(value));
  else
    put_le64(p, value);
  const int32_t put = V_PutBitmapRowCol(b, p, r, s.column, s.bytes);
  if (put < 0) return put;
  return put == s.bytes ? RESULT_OK : RESULT_FAIL;
}

// Bytes touched by the pixel at `column` and the column handed to row access.
int32_t pixel_span(const BitmapHandle* b, int32_t column, int32_t& access_column) {
  const uint64_t bits = static_cast<uint32_t>(b->BitsPerPixel), c = static_cast<uint32_t>(column);
  access_column = column;
  // Compressed rows are reached by pixel, flat rows by byte: start 1-bit
  // access on the byte boundary so both agree.
  if (bits == 1) access_column = column & ~7;
  return static_cast<int32_t>(((c + 1) * bits + 7) / 8 - (c * bits) / 8);
}

int32_t pixel_data(BitmapHandle* b, void* buffer, int32_t row, int32_t column, int32_t size, bool put) {
  if (!b || !(b->Flags & BITMAP_ALLOCATED) || !buffer) return RESULT_NO_BITMAP;
  if (!inside(b, row, column)) return RESULT_BAD_AREA;
  int32_t at;
  const int32_t n = pixel_span(b, column, at);
  if (size < n) return RESULT_BAD_PARAMETER;
  BitmapLock lock(b);
  const int32_t moved = put ? V_PutBitmapRowCol(b, buffer, static_cast<uint32_t>(row), at, n)
                            : V_GetBitmapRowCol(b, buffer, static_cast<uint32_t>(row), at, n);
  return moved == n ? RESULT_OK : RESULT_FAIL;
}

uint32_t nearest_index_form(BitmapHandle* b, uint32_t colour) {
  return COLOR_PALETTE_INDEX | (V_GetNearestPaletteIndex(b, colour & 0x00FFFFFFu) & 0xFFFFu);
}

uint32_t translate(BitmapHandle* dst, BitmapHandle* src, uint32_t color) {
  if (!dst) return color;
  const bool dst_palette = dst->BitsPerPixel <= 8;

  if (is_gray16_form(color)) {
    if (dst->Order != ORDER_GRAY) return gray16_to_rgb(color);
    if (!lut_in_force(dst)) return color;
    // A table of 65536 entries is searched as 65535 (the count is kept in 16 bits there).
    const uint32_t n = dst->GrayLutLength == 65536u ? 65535u : dst->GrayLutLength;
    const uint32_t c = gray16_to_rgb(color);
    const uint32_t index =
        find_palette_index(reinterpret_cast<const RGBQUAD*>(dst->GrayLut), n, red_of(c), green_of(c), blue_of(c));
    return COLOR_PALETTE_INDEX | (index & 0xFFFFu);
  }

  if (is_index_form(color) && src && src->BitsPerPixel <= 8) {
    const int32_t index = static_cast<int32_t>(color & 0xFFu);
    RGBQUAD entry;
    if (V_GetBitmapColors(src, index, 1, &entry) != RESULT_OK) {
      // Black stands for an entry that cannot be read.
      return dst_palette ? nearest_index_form(dst, 0) : 0u;
    }
    const uint32_t c = rgb_of(entry);
    if (!dst_palette) return c;
    RGBQUAD mine;
    if (V_GetBitmapColors(dst, index, 1, &mine) == RESULT_OK && rgb_of(mine) == c) return color;
    return nearest_index_form(dst, c);
  }

  // An RGB colour, or an index that the source cannot resolve.
  return dst_palette ? nearest_index_form(dst, color) : color;
}

int32_t copy_playback(BitmapHandle* dst, BitmapHandle* src) {
  if (!dst || !src) return RESULT_BAD_PARAMETER;
  constexpr uint32_t kPlaybackFlags = BITMAP_PLAYBACK_FLAG1 | BITMAP_PLAYBACK_FLAG2;
  dst->Flags = (dst->Flags & ~kPlaybackFlags) | (src->Flags & kPlaybackFlags);
  dst->PlaybackValue1 = src->PlaybackValue1;
  dst->PlaybackValue2 = src->PlaybackValue2;
  dst->PlaybackValue3 = src->PlaybackValue3;
  dst->PlaybackValue6 = src->PlaybackValue6;
  // The colours must name the same colour in the destination's terms.
  dst->PlaybackColor1 = V_TranslateBitmapColor(dst, src, src->PlaybackColor1);
  dst->PlaybackColor2 = V_TranslateBitmapColor(dst, src, src->PlaybackColor2);
  return RESULT_OK;
}

}  // namespace

int32_t pixel_value(BitmapHandle* b, uint32_t color, uint64_t& value) { return colour_value(b, color, value); }

void fill_pixels(uint8_t* row, int32_t bits, uint32_t x0, uint32_t n, uint64_t value) {
  if (n == 0) return;
  if (bits < 8) {
    with_layout(bits, kRgb, [&](auto layout) -> int {
      using F = decltype(layout);
      if constexpr (F::kForm == Form::index)
        for (uint32_t i = 0; i < n; ++i) F::put(row, x0 + i, static_cast<uint32_t>(value));
      return 0;
    });
    return;
  }
  if (bits == 12) {
    for (uint32_t i = 0; i < n; ++i) Gray12::put(row, x0 + i, static_cast<uint32_t>(value));
    return;
  }
  // Whole bytes: the first pixel's bytes, then the filled part doubled.
  const size_t size = static_cast<size_t>(bits / 8), total = size * n;
  uint8_t* p = row + size_t{x0} * size;
  for (size_t i = 0; i < size; ++i) p[i] = static_cast<uint8_t>(value >> (8 * i));
  for (size_t done = size; done < total;) {
    const size_t k = done < total - done ? done : total - done;
    std::memcpy(p + done, p, k);
    done += k;
  }
}

}  // namespace vk

extern "C" VK_API uint32_t VK_CALL V_GetPixelColor(BitmapHandle* bitmap, int32_t row, int32_t column) {
  return vk::api_call([&] { return vk::get_pixel_color(bitmap, row, column); }, uint32_t{COLOR_INVALID});
}

extern "C" VK_API int32_t VK_CALL V_PutPixelColor(BitmapHandle* bitmap, int32_t row, int32_t column, uint32_t color) {
  return vk::api_call([&] { return vk::put_pixel_color(bitmap, row, column, color); });
}

extern "C" VK_API int32_t VK_CALL V_GetPixelData(BitmapHandle* bitmap, void* buffer, int32_t row, int32_t column,
                                                 int32_t bufferSize) {
  return vk::api_call([&] { return vk::pixel_data(bitmap, buffer, row, column, bufferSize, false); });
}

extern "C" VK_API int32_t VK_CALL V_PutPixelData(BitmapHandle* bitmap, const void* buffer, int32_t row, int32_t column,
                                                 int32_t bufferSize) {
  return vk::api_call(
      [&] { return vk::pixel_data(bitmap, const_cast<void*>(buffer), row, column, bufferSize, true); });
}

extern "C" VK_API uint32_t VK_CALL V_TranslateBitmapColor(BitmapHandle* destination, BitmapHandle* source,
                                                          uint32_t color) {
  return vk::api_call([&] { return vk::translate(destination, source, color); }, color);
}

// The playback colours are translated into the destination's terms, which is
// why this record copy lives beside the colour translation.
extern "C" VK_API int32_t VK_CALL V_CopyPlaybackParms(BitmapHandle* destination, BitmapHandle* source) {
  return vk::api_call([&] { return vk::copy_playback(destination, source); });
}
