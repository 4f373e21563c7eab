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

template <int B>
struct PaletteReader {
  const uint8_t* fold;  // index -> first index with the same colour
  const RGBQUAD* pal;   // 256 entries, zero past ColorCount
  uint32_t key(const uint8_t* row, uint32_t x) const { return fold[Indexed<B>::pixel(row, x)]; }
  RGBQUAD colour(const uint8_t*, uint32_t, uint32_t k) const {
    return quad(pal[k].rgbRed, pal[k].rgbGreen, pal[k].rgbBlue);
  }
};

// 16-bit 5-5-5 colour; order 1 keeps red in bits 10-14, the others in bits 0-4.
template <bool RedHigh>
struct Rgb16Reader {
  uint32_t key(const uint8_t* row, uint32_t x) const {
    return static_cast<uint32_t>(row[2 * x]) | (static_cast<uint32_t>(row[2 * x + 1]) << 8);
  }
  RGBQUAD colour(const uint8_t*, uint32_t, uint32_t k) const {
    const uint32_t lo = k & 31, mid = (k >> 5) & 31, hi = (k >> 10) & 31;
    return RedHigh ? quad(widen5(hi), widen5(mid), widen5(lo)) : quad(widen5(lo), widen5(mid), widen5(hi));
  }
};

// 24/32/48/64-bit colour: three 8-bit channels as stored (for 16-bit samples
// the high, second little-endian, byte).  k = c0 << 16 | c1 << 8 | c2.
template <uint32_t Stride, uint32_t Step, bool Bgr>
struct DeepReader {
  static constexpr uint32_t hi = Step - 1;
  uint32_t key(const uint8_t* row, uint32_t x) const {
    const uint8_t* p = row + x * Stride + hi;
    return (static_cast<uint32_t>(p[0]) << 16) | (static_cast<uint32_t>(p[Step]) << 8) | p[2 * Step];
  }
  RGBQUAD colour(const uint8_t*, uint32_t, uint32_t k) const {
    const uint8_t c0 = static_cast<uint8_t>(k >> 16), c1 = static_cast<uint8_t>(k >> 8), c2 = static_cast<uint8_t>(k);
    return Bgr ? quad(c2, c1, c0) : quad(c0, c1, c2);
  }
};

// Gray samples: (sample >> shift) & mask.  Depth 12 packs two pixels in three
// bytes (even: low 12 bits of the LE word at its first byte; odd: high 12 bits
// of the LE word one byte later); 16 is one LE word; 1-8 are packed indices.
template <int B>
struct GrayReader {
  uint32_t shift, mask;
  static uint32_t sample(const uint8_t* row, uint32_t x) {
    if constexpr (B == 16) {
      return static_cast<uint32_t>(row[2 * x]) | (static_cast<uint32_t>(row[2 * x + 1]) << 8);
    } else if constexpr (B == 12) {
      const uint32_t o = (x >> 1) * 3;
      if ((x & 1) == 0) return (static_cast<uint32_t>(row[o]) | (static_cast<uint32_t>(row[o + 1]) << 8)) & 0xFFF;
      return (static_cast<uint32_t>(row[o + 1]) | (static_cast<uint32_t>(row[o + 2]) << 8)) >> 4;
    } else {
      return Indexed<B>::pixel(row, x);
    }
  }
  uint32_t key(const uint8_t* row, uint32_t x) const { return (sample(row, x) >> shift) & mask; }
  RGBQUAD colour(const uint8_t*, uint32_t, uint32_t k) const {
    const uint8_t v = static_cast<uint8_t>(k);
    return quad(v, v, v);
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
      if (job.colours && job.found <= job.capacity) job.colours[job.found - 1] = reader.colour(job.row, x, k);
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

template <template <int> class R, class... A>
int32_t scan_packed(CountJob& job, int32_t bits, A... a) {
  switch (bits) {
    case 1: return scan(job, R<1>{a...});
    case 2: return scan(job, R<2>{a...});
    case 3: return scan(job, R<3>{a...});
    case 4: return scan(job, R<4>{a...});
    case 5: return scan(job, R<5>{a...});
    case 6: return scan(job, R<6>{a...});
    case 7: return scan(job, R<7>{a...});
    default: return scan(job, R<8>{a...});
  }
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

  int32_t r;
  if (gray) {
    switch (bits) {
      case 12: r = scan(job, GrayReader<12>{range.shift, range.mask}); break;
      case 16: r = scan(job, GrayReader<16>{range.shift, range.mask}); break;
      default: r = scan_packed<GrayReader>(job, bits, range.shift, range.mask); break;
    }
  } else if (bits <= 8) {
    const uint8_t* f = fold;
    const RGBQUAD* p = pal;
    r = scan_packed<PaletteReader>(job, bits, f, p);
  } else {
    const int32_t order = b->Order;
    switch (bits) {
      case 16:
        r = order == ORDER_BGR ? scan(job, Rgb16Reader<true>{}) : scan(job, Rgb16Reader<false>{});
        break;
      case 24:
        r = (order == ORDER_BGR || order == ORDER_BGR_ALT) ? scan(job, DeepReader<3, 1, true>{})
                                                            : scan(job, DeepReader<3, 1, false>{});
        break;
      case 32:
        r = order == ORDER_BGR ? scan(job, DeepReader<4, 1, true>{}) : scan(job, DeepReader<4, 1, false>{});
        break;
      case 48:
        r = (order == ORDER_BGR || order == ORDER_BGR_ALT) ? scan(job, DeepReader<6, 2, true>{})
                                                            : scan(job, DeepReader<6, 2, false>{});
        break;
      default:  // 64: only the first three samples count; never read as BGR
        r = scan(job, DeepReader<8, 2, false>{});
        break;
    }
  }
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
