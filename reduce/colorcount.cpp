// colorcount.cpp - distinct colours of a bitmap.
//
// Every possible colour value of the source format has one bit in a "seen"
// set (bit 7 - (k & 7) of byte k >> 3, most significant bit first).  The scan
// stops as soon as the answer is settled: when every distinct palette colour
// has been seen, or when one more colour than the caller's array holds has
// been found.
//
// Regions: clip regions belong to the host glue, which gives this library no
// way to enumerate a region's runs; the whole bitmap is therefore scanned,
// every row as one run.
#include <cstring>

#include "core.h"
#include "pixel_format.h"

namespace vk {
namespace {


inline RGBQUAD quad(uint8_t r, uint8_t g, uint8_t b) {
  RGBQUAD q;
  q.rgbRed = r;
  q.rgbGreen = g;
  q.rgbBlue = b;
  q.rgbReserved = 0;
  return q;
}

// ---- pixel readers: key = colour value k, colour = the entry to report ------
// Each reads through the bitmap's pixel layout F.

// Palette indices, through the fold of repeated entries.
template <class F>
struct PaletteReader {
  const uint8_t* fold;  // index -> first index with the same colour
  const RGBQUAD* pal;   // 256 entries, zero past ColorCount
  uint32_t key(const uint8_t* row, uint32_t x) const { return fold[F::pixel(row, x)]; }
  RGBQUAD colour(uint32_t k) const { return quad(pal[k].rgbRed, pal[k].rgbGreen, pal[k].rgbBlue); }
};

// Gray samples and gray indices: the significant bits of each value.
template <class F>
struct GrayReader {
  SampleRange range;
  uint32_t key(const uint8_t* row, uint32_t x) const { return range(F::pixel(row, x)); }
  RGBQUAD colour(uint32_t k) const {
    const uint8_t v = static_cast<uint8_t>(k);
    return quad(v, v, v);
  }
};

// 5-5-5 colour: the whole stored word is the key, so words that differ only
// in the unused top bit count as two colours.
template <class F>
struct WordReader {
  uint32_t key(const uint8_t* row, uint32_t x) const { return F::word(row, x); }
  RGBQUAD colour(uint32_t k) const {
    const Rgb8 c = F::of_word(k);
    return quad(c.r, c.g, c.b);
  }
};

// 8- and 16-bit channels: the three 8-bit channels (the high bytes of 16-bit
// ones), k = r << 16 | g << 8 | b.
template <class F>
struct ChannelReader {
  uint32_t key(const uint8_t* row, uint32_t x) const {
    const Rgb8 c = F::pixel(row, x);
    return (static_cast<uint32_t>(c.r) << 16) | (static_cast<uint32_t>(c.g) << 8) | c.b;
  }
  RGBQUAD colour(uint32_t k) const {
    return quad(static_cast<uint8_t>(k >> 16), static_cast<uint8_t>(k >> 8), static_cast<uint8_t>(k));
  }
};

struct CountJob {
  BitmapHandle* bitmap;
  uint8_t* seen;
  uint8_t* row;
  RGBQUAD* colours;   // null: count only
  uint32_t capacity;  // entries of colours
  uint64_t bound;     // stop once this many colours were found
  uint32_t found;
};

// The row loop, one instantiation per pixel reader.
template <class Reader>
int32_t scan(CountJob& job, const Reader& reader) {
  BitmapHandle* b = job.bitmap;
  const uint32_t width = b->Width > 0 ? static_cast<uint32_t>(b->Width) : 0;
  const int32_t height = b->Height > 0 ? b->Height : 0;
  Progress progress(height > 0 ? height : 1);
  VK_TRY(progress.start());
  BitmapLock lock(b);
  bool done = job.found >= job.bound;
  for (int32_t y = 0; y < height && !done; ++y) {
    const int32_t got = V_GetBitmapRow(b, job.row, static_cast<uint32_t>(y), static_cast<int32_t>(b->BytesPerLine));
    if (got < 0) return got;
    for (uint32_t x = 0; x < width; ++x) {
      const uint32_t k = reader.key(job.row, x);
      uint8_t& cell = job.seen[k >> 3];
      const uint8_t m = static_cast<uint8_t>(0x80u >> (k & 7));
      if (cell & m) continue;
      cell |= m;
      ++job.found;
      if (job.colours && job.found <= job.capacity) job.colours[job.found - 1] = reader.colour(k);
      if (job.found >= job.bound) {
        done = true;
        break;
      }
    }
    if (!done) VK_TRY(progress.step());
  }
  return progress.finish();
}

struct GrayRange {
  uint32_t bits, mask, shift;
};

// The gray bit range of a bitmap: low = max(LowBit, 0); high = HighBit, or
// BitsPerPixel - 1 when negative; bits = min(high - low + 1, maxBits).
GrayRange gray_range(const BitmapHandle* b, int32_t max_bits) {
  const BitRange r = bit_range(b->BitsPerPixel, max_bits, b->LowBit, b->HighBit);
  const int64_t bits = r.count < 1 ? 1 : r.count > 24 ? 24 : r.count;
  return GrayRange{static_cast<uint32_t>(bits), low_bits(bits), clamp_shift(r.shift_for(bits))};
}

int32_t count_colours(BitmapHandle* b, uint32_t* count, RGBQUAD* colours) {
  const int32_t bits = b->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_BITS_PER_PIXEL;
  const bool gray = b->Order == ORDER_GRAY && (bits <= 8 || bits == 12 || bits == 16);
  const bool lut = b->GrayLut && (b->Flags & BITMAP_GRAY_FLAG);
  const uint32_t capacity = colours ? *count : 0;

  CountJob job{b, nullptr, nullptr, colours, capacity, 0, 0};
  uint64_t set_bytes = 0;
  GrayRange range{};
  uint8_t fold[256];
  RGBQUAD pal[256];

  if (gray) {
    range = gray_range(b, (lut || !colours) ? bits : 8);
    set_bytes = lut ? 0x200000u : ((uint64_t{1} << range.bits) + 7) / 8;
    job.bound = uint64_t{1} << range.bits;
  } else if (bits <= 8) {
    const uint32_t n = 1u << bits;
    set_bytes = (n + 7) / 8;
    std::memset(pal, 0, sizeof pal);
    for (uint32_t i = 0; i < 256; ++i) fold[i] = static_cast<uint8_t>(i);
    const uint32_t entries = b->ColorCount < n ? b->ColorCount : n;
    if (entries != 0) VK_TRY(V_GetBitmapColors(b, 0, static_cast<int32_t>(entries), pal));
    // Entries repeating an earlier colour (reserved byte ignored) count as
    // that earlier entry; the bound is the number of distinct entries.
    uint32_t folded = 0;
    for (uint32_t i = 1; i < entries; ++i) {
      for (uint32_t j = 0; j < i; ++j) {
        if (pal[j].rgbRed == pal[i].rgbRed && pal[j].rgbGreen == pal[i].rgbGreen && pal[j].rgbBlue == pal[i].rgbBlue) {
          fold[i] = static_cast<uint8_t>(j);
          ++folded;
          break;
        }
      }
    }
    job.bound = entries == 0 ? n : entries - folded;
  } else if (bits == 16) {
    set_bytes = 4096;
    job.bound = 0x10000;
  } else {
    set_bytes = 0x200000;
    job.bound = 0x1000000;
  }
  if (colours && capacity < job.bound) job.bound = uint64_t{capacity} + 1;

  Buffer<uint8_t> seen(static_cast<size_t>(set_bytes), true);
  Buffer<uint8_t> row(static_cast<size_t>(b->BytesPerLine) + 8);
  if (!seen || !row) return RESULT_FAIL;
  job.seen = seen.get();
  job.row = row.get();
  std::memset(job.row, 0, row.size());

  // The layout: 16 bits read as BGR only in that order, 24 and 48 bits also
  // in the second colour space (same positions), 64 bits always as RGB.
  const int32_t order = b->Order;
  const bool bgr = order == ORDER_BGR || (order == ORDER_BGR_ALT && (bits == 24 || bits == 48));
  const Channels channels = gray ? kGray : (bgr && bits != 64) ? kBgr : kRgb;
  const SampleRange sample_range{range.shift, range.mask};
  const int32_t r = with_layout(bits, channels, [&](auto layout) -> int32_t {
    using F = decltype(layout);
    if constexpr (F::kForm == Form::index) {
      if (gray) return scan(job, GrayReader<F>{sample_range});
      return scan(job, PaletteReader<F>{fold, pal});
    } else if constexpr (F::kForm == Form::sample) {
      return scan(job, GrayReader<F>{sample_range});
    } else if constexpr (requires { F::word(nullptr, 0); }) {
      return scan(job, WordReader<F>{});
    } else {
      return scan(job, ChannelReader<F>{});
    }
  });
  if (r != RESULT_OK) return r;
  *count = job.found;
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" {

VK_API int32_t VK_CALL V_GetBitmapColorCountExt(BitmapHandle* bitmap, uint32_t* count, RGBQUAD* colours) {
  return vk::api_call([&]() -> int32_t {
    VK_TRY(vk::check_bitmap(bitmap));
    if (!count) return RESULT_BAD_PARAMETER;
    return vk::count_colours(bitmap, count, colours);
  });
}

}  // extern "C"
