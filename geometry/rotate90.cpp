// rotate90.cpp - quarter and half turns: the transposition of packed pixel
// buffers for every depth, the quarter turn of a bitmap in any storage, the
// buffer turns, and the exact paths of the general turn (0, 90, 180, 270
// degrees).
//
// The transposition writes destination row r from source column r.  Whole-
// byte pixels go tile by tile (below) so that both sides stay in cache on
// large bitmaps; 1-bit pixels go eight source rows at a time through an 8 x 8
// bit-matrix transpose (eight destination bytes per step); 4-bit pixels two
// source rows at a time (one destination byte per step); the other packings
// a pixel at a time through the pixel-format layer.
#include <algorithm>
#include <array>
#include <cstring>

#include "compressed.h"
#include "dispatch.h"
#include "geometry.h"
#include "op.h"
#include "pixel_format.h"
#include "platform.h"
#include "runs.h"

#if defined(__SSE2__)
#include <tmmintrin.h>
#endif

namespace vk {
namespace {

// Flat bitmaps are turned in bands of this many destination rows, with
// progress and cancellation between bands.
constexpr uint32_t kBlock = 128;

// Whole-byte pixels go tile by tile, kTile x kTile pixels: the tile's source
// rows and the destination rows it fills stay in the first-level cache, and
// the tiles of one band of destination rows are done left to right, so each
// destination row is written front to back in runs of kTile pixels and its
// cache lines are filled whole before they leave the cache.
constexpr uint32_t kTile = 16;
constexpr uint32_t kBand = 64;

// One pixel: whole bytes.  Where another pixel follows in both rows, 3- and
// 6-byte pixels move as 4 and 8 bytes (the extra byte is overwritten by the
// next pixel of the destination row).
template <int N, bool Wide>
inline void move_pixel(uint8_t* d, const uint8_t* s) {
  constexpr int M = !Wide ? N : N == 3 ? 4 : N == 6 ? 8 : N;
  std::memcpy(d, s, M);
}

template <int N, bool Wide>
void tile_plain(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t rows, uint32_t cols) {
  for (uint32_t r = 0; r < rows; ++r) {
    uint8_t* d = dst + intptr_t(r) * ds;
    for (uint32_t c = 0; c < cols; ++c) move_pixel<N, Wide>(d + size_t(c) * N, src + intptr_t(c) * ss + size_t(r) * N);
  }
}

#if defined(__SSE2__)
// A full tile of 1-, 2-, 4- or 8-byte pixels through vector registers:
// blocks of L = 16 / N rows of L pixels, transposed by log2(L) rounds of
// interleaving register i with register i + L / 2.
template <int N>
inline __m128i interleave(__m128i a, __m128i b, bool high) {
  if constexpr (N == 1) return high ? _mm_unpackhi_epi8(a, b) : _mm_unpacklo_epi8(a, b);
  if constexpr (N == 2) return high ? _mm_unpackhi_epi16(a, b) : _mm_unpacklo_epi16(a, b);
  if constexpr (N == 4) return high ? _mm_unpackhi_epi32(a, b) : _mm_unpacklo_epi32(a, b);
  if constexpr (N == 8) return high ? _mm_unpackhi_epi64(a, b) : _mm_unpacklo_epi64(a, b);
}

template <int N>
void tile_vector(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds) {
  constexpr uint32_t L = 16 / N;
  for (uint32_t r0 = 0; r0 < kTile; r0 += L)
    for (uint32_t c0 = 0; c0 < kTile; c0 += L) {
      __m128i a[L], b[L];
      for (uint32_t i = 0; i < L; ++i)
        a[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + intptr_t(c0 + i) * ss + size_t(r0) * N));
      for (uint32_t round = 1; round < L; round *= 2) {
        for (uint32_t i = 0; i < L / 2; ++i) {
          b[2 * i] = interleave<N>(a[i], a[i + L / 2], false);
          b[2 * i + 1] = interleave<N>(a[i], a[i + L / 2], true);
        }
        for (uint32_t i = 0; i < L; ++i) a[i] = b[i];
      }
      for (uint32_t i = 0; i < L; ++i)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + intptr_t(r0 + i) * ds + size_t(c0) * N), a[i]);
    }
}

// 3-byte pixels, 4 x 4 at a time: each source row's four pixels are spread
// to four 4-byte lanes by a byte shuffle, transposed as 4-byte pixels and
// packed back.  Loads and stores are 16 bytes for 12: the tile must not
// hold the last two pixels of a source or destination row.
__attribute__((target("ssse3"))) void tile_vector_3(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds) {
  const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  for (uint32_t r0 = 0; r0 < kTile; r0 += 4)
    for (uint32_t c0 = 0; c0 < kTile; c0 += 4) {
      __m128i a[4];
      for (uint32_t i = 0; i < 4; ++i)
        a[i] = _mm_shuffle_epi8(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + intptr_t(c0 + i) * ss + size_t(r0) * 3)), spread);
      const __m128i b0 = _mm_unpacklo_epi32(a[0], a[2]), b1 = _mm_unpackhi_epi32(a[0], a[2]);
      const __m128i b2 = _mm_unpacklo_epi32(a[1], a[3]), b3 = _mm_unpackhi_epi32(a[1], a[3]);
      const __m128i out[4] = {_mm_unpacklo_epi32(b0, b2), _mm_unpackhi_epi32(b0, b2), _mm_unpacklo_epi32(b1, b3),
                              _mm_unpackhi_epi32(b1, b3)};
      for (uint32_t i = 0; i < 4; ++i)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + intptr_t(r0 + i) * ds + size_t(c0) * 3),
                         _mm_shuffle_epi8(out[i], pack));
    }
}
#endif

template <int N>
void transpose_bytes(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t w, uint32_t h) {
#if defined(__SSE2__)
  constexpr bool kVector = N == 1 || N == 2 || N == 4 || N == 8;
  static const bool vector = kVector && plat::simd_level() != plat::Simd::generic;
  // Every processor with AVX2 has the byte shuffle.
  static const bool shuffle = N == 3 && plat::simd_level() == plat::Simd::avx2;
#endif
  for (uint32_t b0 = 0; b0 < w; b0 += kBand)
    for (uint32_t c0 = 0; c0 < h; c0 += kTile) {
      const uint32_t cols = std::min(kTile, h - c0);
      for (uint32_t r0 = b0; r0 < std::min(w, b0 + kBand); r0 += kTile) {
        const uint32_t rows = std::min(kTile, w - r0);
        const uint8_t* s = src + intptr_t(c0) * ss + size_t(r0) * N;
        uint8_t* d = dst + intptr_t(r0) * ds + size_t(c0) * N;
#if defined(__SSE2__)
        if constexpr (kVector)
          if (vector && rows == kTile && cols == kTile) {
            tile_vector<N>(s, ss, d, ds);
            continue;
          }
        if constexpr (N == 3)
          if (shuffle && r0 + kTile + 2 <= w && c0 + kTile + 2 <= h) {
            tile_vector_3(s, ss, d, ds);
            continue;
          }
#endif
        // Wide moves read one byte past a source pixel and write one past a
        // destination pixel: safe unless the tile holds the last pixel of
        // either row.
        if (r0 + rows < w && c0 + cols < h)
          tile_plain<N, true>(s, ss, d, ds, rows, cols);
        else
          tile_plain<N, false>(s, ss, d, ds, rows, cols);
      }
    }
}

// 8 x 8 bit matrix, row i in byte 7 - i of x (row 0 most significant),
// column j in bit 7 - j of its byte: transposed by three exchanges of bit
// groups (distance 7, 14, 28).
inline uint64_t transpose8(uint64_t x) {
  uint64_t t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
  x = x ^ t ^ (t << 7);
  t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
  x = x ^ t ^ (t << 14);
  t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
  return x ^ t ^ (t << 28);
}

void transpose_1(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t w, uint32_t h) {
  const uint32_t src_bytes = (w + 7) / 8;
  for (uint32_t c0 = 0; c0 < h; c0 += 8) {
    const uint32_t rows = std::min<uint32_t>(8, h - c0);
    const uint8_t* s[8];
    for (uint32_t i = 0; i < rows; ++i) s[i] = src + intptr_t(c0 + i) * ss;
    for (uint32_t k = 0; k < src_bytes; ++k) {
      uint64_t x = 0;
      for (uint32_t i = 0; i < rows; ++i) x |= uint64_t{s[i][k]} << (56 - 8 * i);
      x = transpose8(x);
      const uint32_t out = std::min<uint32_t>(8, w - 8 * k);
      for (uint32_t j = 0; j < out; ++j)
        dst[intptr_t(8 * k + j) * ds + c0 / 8] = static_cast<uint8_t>(x >> (56 - 8 * j));
    }
  }
}

void transpose_4(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t w, uint32_t h) {
  for (uint32_t c = 0; c < h; c += 2) {
    const uint8_t* a = src + intptr_t(c) * ss;
    const uint8_t* b = c + 1 < h ? src + intptr_t(c + 1) * ss : nullptr;
    for (uint32_t r = 0; r < w; ++r) {
      const uint32_t hi = Indexed<4>::pixel(a, r), lo = b ? Indexed<4>::pixel(b, r) : 0;
      dst[intptr_t(r) * ds + c / 2] = static_cast<uint8_t>((hi << 4) | lo);
    }
  }
}

template <int B>
void transpose_packed(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t w, uint32_t h) {
  for (uint32_t c = 0; c < h; ++c) {
    const uint8_t* s = src + intptr_t(c) * ss;
    for (uint32_t r = 0; r < w; ++r) put_packed_pixel<B>(dst + intptr_t(r) * ds, c, packed_pixel_tight<B>(s, r));
  }
}

void transpose_12(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t w, uint32_t h) {
  for (uint32_t c = 0; c < h; ++c) {
    const uint8_t* s = src + intptr_t(c) * ss;
    for (uint32_t r = 0; r < w; ++r) put_gray12_pixel(dst + intptr_t(r) * ds, c, gray12_pixel(s, r));
  }
}

using TransposeFn = void (*)(const uint8_t*, intptr_t, uint8_t*, intptr_t, uint32_t, uint32_t);

template <int B>
constexpr TransposeFn transpose_of() {
  if constexpr (B == 1) return transpose_1;
  else if constexpr (B == 4) return transpose_4;
  else if constexpr (B == 12) return transpose_12;
  else if constexpr (B % 8 == 0) return transpose_bytes<B / 8>;
  else return transpose_packed<B>;
}
constexpr auto kTranspose = by_depth<TransposeFn>([]<int B>() { return transpose_of<B>(); });

TransposeFn transpose_kernel(int32_t bits) { return bits >= 0 && bits <= 64 ? kTranspose[bits] : nullptr; }

// Source rows in the order the transposition reads them: direction 1 takes
// them from the last to the first.
struct Side {
  uint8_t* base;
  intptr_t stride;
};
Side order(uint8_t* data, uint32_t bpl, uint32_t rows, bool reverse) {
  return reverse ? Side{data + size_t(rows - 1) * bpl, -intptr_t(bpl)} : Side{data, intptr_t(bpl)};
}

// Both bitmaps flat in memory: one transposition, by bands of 32
// destination rows so progress and cancellation run between bands.
int32_t turn_flat(BitmapHandle* b, BitmapHandle* d, int32_t direction, TransposeFn fn, Progress& progress) {
  const uint32_t w = uint32_t(b->Width), h = uint32_t(b->Height);
  const Side s = order(static_cast<uint8_t*>(b->Data), b->BytesPerLine, h, direction == 1);
  const Side t = order(static_cast<uint8_t*>(d->Data), d->BytesPerLine, w, direction == 0);
  // Destination rows r0.. come from source columns r0..; a band starts at a
  // column whose bit offset is a whole byte for every depth.
  const int32_t bands = int32_t((w + kBlock - 1) / kBlock);
  const uint32_t bits = uint32_t(b->BitsPerPixel);
  for (int32_t i = 0; i < bands; ++i) {
    const uint32_t r0 = uint32_t(i) * kBlock, n = std::min(kBlock, w - r0);
    fn(s.base + size_t(r0) * bits / 8, s.stride, t.base + intptr_t(r0) * t.stride, t.stride, n, h);
    for (uint32_t k = 0; k < n; ++k) VK_TRY(progress.step());
  }
  return RESULT_OK;
}

// Compressed 1-bit rows read column band by column band straight from
// their runs: every row's record is held once (the compressed size, never
// the expanded one) with a cursor that only moves right as the bands do.
class RunColumns {
 public:
  int32_t read_rows(BitmapHandle* b) {
    const uint32_t h = uint32_t(b->Height);
    const size_t capacity = 2 * size_t(uint32_t(b->Width)) + 8;
    Buffer<uint8_t> record(capacity);
    if (!record || !at_.allocate(size_t(h) + 1) || !run_.allocate(h, true) || !start_.allocate(h, true))
      return RESULT_FAIL;
    // The records' lengths first, then the records themselves.
    size_t total = 0;
    for (uint32_t y = 0; y < h; ++y) {
      const int32_t n = cmp::read_record(b, y, record.get(), capacity);
      if (n < 0) return n;
      at_[y] = total;
      total += size_t(n);
    }
    at_[h] = total;
    if (!records_.allocate(total)) return RESULT_FAIL;
    for (uint32_t y = 0; y < h; ++y) {
      const int32_t n = cmp::read_record(b, y, records_.get() + at_[y], at_[y + 1] - at_[y]);
      if (n < 0) return n;
    }
    return RESULT_OK;
  }

  // Pixels c0 .. c0 + n - 1 of row y, packed from bit 7 of out[0]; bands
  // must come left to right.
  void segment(uint32_t y, uint32_t c0, uint32_t n, uint8_t* out) {
    std::memset(out, 0, (size_t(n) + 7) / 8);
    const uint8_t* rec = records_.get() + at_[y];
    const uint32_t count = cmp::load32(rec);
    uint32_t k = run_[y];
    uint64_t pos = start_[y];
    const uint64_t end = uint64_t{c0} + n;
    // Runs wholly left of the band are passed for good.
    for (uint32_t len; k < count && pos + (len = cmp::load16(rec + 4 + 2 * size_t(k))) <= c0; ++k) pos += len;
    run_[y] = k;
    start_[y] = pos;
    for (; k < count && pos < end; ++k) {
      const uint64_t next = pos + cmp::load16(rec + 4 + 2 * size_t(k));
      if (k & 1) set_bits(out, uint32_t(std::max<uint64_t>(pos, c0) - c0), uint32_t(std::min(next, end) - c0));
      pos = next;
    }
  }

 private:
  static void set_bits(uint8_t* out, uint32_t from, uint32_t to) {
    for (; from < to && (from & 7); ++from) out[from / 8] |= uint8_t(0x80u >> (from & 7));
    if (from + 8 <= to) {
      std::memset(out + from / 8, 0xFF, (to - from) / 8);
      from += (to - from) & ~7u;
    }
    for (; from < to; ++from) out[from / 8] |= uint8_t(0x80u >> (from & 7));
  }

  Buffer<uint8_t> records_;
  Buffer<size_t> at_;
  Buffer<uint32_t> run_;
  Buffer<uint64_t> start_;
};

// Any storage: the source is read in bands of columns (each source row's
// segment through row access, or from its runs), transposed in memory and
// written as whole destination rows.  Compressed destinations take whole
// rows, so no compressed bitmap is ever expanded as a whole.
int32_t turn_by_bands(BitmapHandle* b, BitmapHandle* d, int32_t direction, TransposeFn fn, Progress& progress,
                      RunColumns* runs) {
  const uint32_t w = uint32_t(b->Width), h = uint32_t(b->Height), bits = uint32_t(b->BitsPerPixel);
  // About turn_band_bytes of source segments per band, in columns of 8
  // pixels (so a segment starts on a byte for every depth).
  uint64_t k = uint64_t{turn_band_bytes} * 8 / (uint64_t{h} * bits);
  k = std::clamp<uint64_t>(k & ~uint64_t{7}, 8, (uint64_t{w} + 7) & ~uint64_t{7});
  const uint32_t band = uint32_t(k);
  const size_t seg = size_t(band) * bits / 8;
  const uint32_t dbpl = d->BytesPerLine;
  Buffer<uint8_t> segments(seg * h), rows(size_t(band) * dbpl, true);
  if (!segments || !rows) return RESULT_FAIL;
  const Side s = order(segments.get(), uint32_t(seg), h, direction == 1);
  BitmapLock lock_src(b), lock_dst(d);
  for (uint32_t c0 = 0; c0 < w; c0 += band) {
    const uint32_t n = std::min(band, w - c0);
    const int32_t bytes = int32_t((uint64_t{n} * bits + 7) / 8);
    for (uint32_t y = 0; y < h; ++y) {
      if (runs) {
        runs->segment(y, c0, n, segments.get() + size_t(y) * seg);
        continue;
      }
      const int32_t got = V_GetBitmapRowCol(b, segments.get() + size_t(y) * seg, y, int32_t(c0), bytes);
      if (got < 0) return got;
    }
    fn(s.base, s.stride, rows.get(), intptr_t(dbpl), n, h);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t row = direction == 1 ? c0 + i : w - 1 - (c0 + i);
      const int32_t put = V_PutBitmapRow(d, rows.get() + size_t(i) * dbpl, row, int32_t(dbpl));
      if (put < 0) return put;
      VK_TRY(progress.step());
    }
  }
  return RESULT_OK;
}

}  // namespace

uint64_t compressed_turn_limit = 18000000;
uint32_t turn_band_bytes = 1u << 20;

void transpose(const uint8_t* src, intptr_t src_stride, uint8_t* dst, intptr_t dst_stride, uint32_t w, uint32_t h,
               int32_t bits) {
  if (const TransposeFn fn = transpose_kernel(bits)) fn(src, src_stride, dst, dst_stride, w, h);
}

int32_t turn_quarter(BitmapHandle* b, int32_t direction, op::Scratch& out, Progress& progress) {
  VK_TRY(check_bitmap(b));
  const TransposeFn fn = transpose_kernel(b->BitsPerPixel);
  if (!fn) return RESULT_BAD_BITS_PER_PIXEL;
  VK_TRY(dup_shared(out, b, b->Height, b->Width));
  out->XResolution = b->YResolution;
  out->YResolution = b->XResolution;
  op::CacheGuard cache(b);
  int32_t r;
  {
    BitmapLock lock_src(b), lock_dst(out.get());
    if (flat_memory(b) && flat_memory(out.get())) {
      r = turn_flat(b, out.get(), direction, fn, progress);
    } else if ((b->Flags & BITMAP_COMPRESSED) && b->BitsPerPixel == 1 &&
               uint64_t{b->BytesPerLine} * uint32_t(b->Height) > compressed_turn_limit) {
      RunColumns runs;
      r = runs.read_rows(b);
      if (r == RESULT_OK) r = turn_by_bands(b, out.get(), direction, fn, progress, &runs);
    } else {
      r = turn_by_bands(b, out.get(), direction, fn, progress, nullptr);
    }
  }
  VK_TRY(r);
  VK_TRY(progress.finish());
  cache.dismiss();
  return RESULT_OK;
}

int32_t rotate90(BitmapHandle* b, int32_t direction, int32_t from, int32_t to) {
  VK_TRY(check_bitmap(b));
  op::Scratch out;
  Progress progress(b->Width, false, from, to);
  VK_TRY(progress.start());
  VK_TRY(turn_quarter(b, direction, out, progress));
  if (auto hook = reinterpret_cast<VK_ROTATEREGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(13)))) {
    // The hook turns the region the new record shares with the caller's;
    // whatever it leaves there goes with the commit.
    hook(out.get(), b->Width, b->Height, direction == 1 ? 9000 : -9000);
    b->Region = out->Region;
  }
  op::commit(out, b);
  return RESULT_OK;
}

}  // namespace vk

namespace {

uint32_t buffer_stride(int32_t width, int32_t bits) { return vk::bytes_per_line(width, bits); }

bool buffer_args(const void* src, const void* dst, int32_t width, int32_t height, int32_t bits, int32_t& r) {
  r = RESULT_OK;
  if (!src || !dst || width < 1 || height < 1) r = RESULT_BAD_PARAMETER;
  else if (!vk::valid_bitmap_depth(bits)) r = RESULT_BAD_BITS_PER_PIXEL;
  else if (uint64_t{buffer_stride(width, bits)} * uint32_t(height) > INT32_MAX) r = RESULT_BAD_PARAMETER;
  return r == RESULT_OK;
}

// The exact turns by whole quarters first; anything else is the general turn.
int32_t turn(BitmapHandle* b, int32_t angle, uint32_t flags, uint32_t fill, int32_t from, int32_t to) {
  if (!vk::allocated(b)) return RESULT_NO_BITMAP;
  int64_t a = (-int64_t{angle}) % 36000;
  if (a < 0) a += 36000;
  if (a == 0) {
    vk::Progress progress(1, false, from, to);
    VK_TRY(progress.start());
    return progress.finish();
  }
  const bool whole = (flags & ROTATE_RESIZE) || b->Width == b->Height;
  if (a == 9000 && whole) return vk::rotate90(b, 0, from, to);
  if (a == 27000 && whole) return vk::rotate90(b, 1, from, to);
  if (a == 18000) return vk::transform_rows(b, true, true, from, to);
  return vk::turn_any(b, int32_t(a), angle, flags, fill, from, to);
}

}  // namespace

extern "C" {

VK_API int32_t VK_CALL V_RotateBuffer90(const void* source, void* destination, int32_t fromBottom, int32_t width,
                                        int32_t height, int32_t bitsPerPixel) {
  return vk::api_call([&]() -> int32_t {
    int32_t r;
    if (!buffer_args(source, destination, width, height, bitsPerPixel, r)) return r;
    const uint32_t ss = buffer_stride(width, bitsPerPixel), ds = buffer_stride(height, bitsPerPixel);
    const uint8_t* s = static_cast<const uint8_t*>(source);
    intptr_t stride = intptr_t(ss);
    if (fromBottom) {
      s += size_t(height - 1) * ss;
      stride = -stride;
    }
    vk::transpose(s, stride, static_cast<uint8_t*>(destination), intptr_t(ds), uint32_t(width), uint32_t(height),
                  bitsPerPixel);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_RotateBuffer180(const void* source, void* destination, int32_t width, int32_t height,
                                         int32_t bitsPerPixel) {
  return vk::api_call([&]() -> int32_t {
    int32_t r;
    if (!buffer_args(source, destination, width, height, bitsPerPixel, r)) return r;
    const size_t stride = buffer_stride(width, bitsPerPixel);
    const vk::MirrorFn mirror = vk::mirror_kernel(bitsPerPixel);
    const uint8_t* s = static_cast<const uint8_t*>(source);
    uint8_t* d = static_cast<uint8_t*>(destination);
    if (s == d) {
      // In place: rows exchanged in pairs, each mirrored.
      for (int32_t i = 0, j = height - 1; i <= j; ++i, --j) {
        uint8_t* a = d + size_t(i) * stride;
        uint8_t* b = d + size_t(j) * stride;
        mirror(a, uint32_t(width));
        if (i == j) break;
        mirror(b, uint32_t(width));
        std::swap_ranges(a, a + stride, b);
      }
      return RESULT_OK;
    }
    for (int32_t i = 0; i < height; ++i) {
      uint8_t* row = d + size_t(height - 1 - i) * stride;
      std::memcpy(row, s + size_t(i) * stride, stride);
      mirror(row, uint32_t(width));
    }
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_RotateBitmap90(BitmapHandle* bitmap, int32_t direction, int32_t progressStart,
                                        int32_t progressEnd) {
  return vk::api_call([&] { return vk::rotate90(bitmap, direction ? 1 : 0, progressStart, progressEnd); });
}

VK_API int32_t VK_CALL V_IntRotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fill,
                                         int32_t progressStart, int32_t progressEnd) {
  return vk::api_call([&] { return turn(bitmap, angle, flags, fill, progressStart, progressEnd); });
}

VK_API int32_t VK_CALL V_RotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fill) {
  return vk::api_call([&] { return turn(bitmap, angle, flags, fill, 0, 100); });
}

}  // extern "C"
