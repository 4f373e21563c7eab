// rotate90.cpp - quarter and half turns: the transposition of packed pixel
// buffers for every depth, the quarter turn of a bitmap in any storage, the
// buffer turns, and the exact paths of the general turn (0, 90, 180, 270
// degrees).
//
// The transposition writes destination row r from source column r.  Whole-
// byte pixels go through 32 x 32 blocks so that both sides stay in cache on
// large bitmaps; 1-bit pixels go eight source rows at a time through an 8 x 8
// bit-matrix transpose (eight destination bytes per step); 4-bit pixels two
// source rows at a time (one destination byte per step); the other packings
// a pixel at a time through the pixel-format layer.
#include <algorithm>
#include <array>
#include <cstring>

#include "dispatch.h"
#include "geometry.h"
#include "op.h"
#include "pixel_format.h"

namespace vk {
namespace {

constexpr uint32_t kBlock = 128;

// Eight source rows at a time: each destination row takes eight pixels in
// one store, so writes go out in whole words.
template <int N>
void transpose_bytes(const uint8_t* src, intptr_t ss, uint8_t* dst, intptr_t ds, uint32_t w, uint32_t h) {
  for (uint32_t c0 = 0; c0 < h; c0 += kBlock) {
    const uint32_t c1 = std::min(h, c0 + kBlock);
    for (uint32_t r0 = 0; r0 < w; r0 += kBlock) {
      const uint32_t r1 = std::min(w, r0 + kBlock);
      uint32_t c = c0;
      for (; c + 8 <= c1; c += 8) {
        const uint8_t* s[8];
        for (int i = 0; i < 8; ++i) s[i] = src + intptr_t(c + i) * ss;
        for (uint32_t r = r0; r < r1; ++r) {
          uint8_t out[8 * N];
          for (int i = 0; i < 8; ++i) std::memcpy(out + i * N, s[i] + size_t(r) * N, N);
          std::memcpy(dst + intptr_t(r) * ds + size_t(c) * N, out, 8 * N);
        }
      }
      for (; c < c1; ++c) {
        const uint8_t* s = src + intptr_t(c) * ss;
        for (uint32_t r = r0; r < r1; ++r) std::memcpy(dst + intptr_t(r) * ds + size_t(c) * N, s + size_t(r) * N, N);
      }
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

// Key: bits per pixel, 0..64.
constexpr std::array<TransposeFn, 65> make_transpose_table() {
  std::array<TransposeFn, 65> t{};
  t[1] = transpose_1;
  t[2] = transpose_packed<2>;
  t[3] = transpose_packed<3>;
  t[4] = transpose_4;
  t[5] = transpose_packed<5>;
  t[6] = transpose_packed<6>;
  t[7] = transpose_packed<7>;
  t[8] = transpose_bytes<1>;
  t[12] = transpose_12;
  t[16] = transpose_bytes<2>;
  t[24] = transpose_bytes<3>;
  t[32] = transpose_bytes<4>;
  t[48] = transpose_bytes<6>;
  t[64] = transpose_bytes<8>;
  return t;
}
constexpr std::array<TransposeFn, 65> kTranspose = make_transpose_table();

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

// Any storage: the source is read in bands of columns (each source row's
// segment through row access), transposed in memory and written as whole
// destination rows.  Compressed sources are read from their runs segment by
// segment and compressed destinations take whole rows, so no compressed
// bitmap is ever expanded as a whole.
int32_t turn_by_bands(BitmapHandle* b, BitmapHandle* d, int32_t direction, TransposeFn fn, Progress& progress) {
  const uint32_t w = uint32_t(b->Width), h = uint32_t(b->Height), bits = uint32_t(b->BitsPerPixel);
  // About a megabyte of source segments per band, in columns of 8 pixels
  // (so a segment starts on a byte for every depth).
  uint64_t k = (uint64_t{8} << 20) / (uint64_t{h} * bits);
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
    const bool flat = flat_memory(b) && flat_memory(out.get());
    r = flat ? turn_flat(b, out.get(), direction, fn, progress) : turn_by_bands(b, out.get(), direction, fn, progress);
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
