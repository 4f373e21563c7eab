// dither.cpp - the dithering engine: rows of any source depth to rows of
// 1- to 8-bit palette indices, by nearest colour, by one of six error-
// diffusion kernels or by one of two ordered threshold matrices.
//
// Speed: a row is first decoded into 8-bit channels through the pixel-format
// layer (one run call per row), then dithered in a single left-to-right
// pass.  Decoder and row function are picked once at start from (depth,
// order) and (method, match mode); every combination of the latter is its
// own template instance, so the pixel loop contains no switch and no
// indirect call; only the first lookup of an unresolved 5-5-5 cell leaves
// the loop (cold path).
//
// Error diffusion keeps integer numerators (weight * error) in the error
// rows and divides once per channel per pixel, truncating toward zero.
#include "dither.h"

#include <array>
#include <climits>
#include <cstddef>
#include <cstring>
#include <type_traits>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#define VK_DITHER_AVX2 1
#endif

#include "core.h"
#include "lookup.h"
#include "pixel_format.h"
#include "palette_tables.h"
#include "platform.h"

namespace vk {
namespace {

// Threshold matrices, row = line & 7, column = x & 7.  The first is used as
// listed: 232 occurs twice and 252 never.
constexpr uint8_t kOrderedMatrix[64] = {
    0,   128, 32,  160, 8,   136, 40,  168,  //
    192, 64,  224, 96,  200, 72,  232, 104,  //
    48,  176, 16,  144, 56,  184, 24,  152,  //
    236, 112, 208, 80,  244, 120, 216, 88,   //
    12,  140, 44,  172, 4,   132, 36,  164,  //
    204, 76,  232, 108, 196, 68,  228, 100,  //
    60,  188, 28,  156, 52,  180, 20,  148,  //
    248, 124, 220, 92,  240, 116, 212, 84,
};
constexpr uint8_t kClusteredMatrix[64] = {
    112, 40,  72,  104, 144, 176, 208, 136,  //
    88,  8,   16,  48,  192, 232, 240, 168,  //
    56,  24,  0,   80,  160, 224, 248, 200,  //
    96,  64,  32,  120, 128, 216, 184, 152,  //
    148, 180, 212, 140, 116, 44,  76,  108,  //
    196, 236, 244, 172, 92,  12,  20,  52,   //
    164, 228, 252, 204, 60,  28,  4,   84,   //
    132, 220, 188, 156, 100, 68,  36,  124,
};

constexpr int clamp255(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// ---- error-diffusion kernels ---------------------------------------------------
// F: farthest same-line column reached (x + F); it is also the margin.
// R: later lines reached.  D: divisor.  same[k]: weight for x + k on this line.
// w[r][d + 3]: weight for column x + d on line y + 1 + r.

struct KernelFloydSteinberg {
  static constexpr int F = 1, R = 1, D = 16;
  static constexpr int same[4] = {0, 7, 0, 0};
  static constexpr int w[3][7] = {{0, 0, 3, 5, 1, 0, 0}, {}, {}};
};
struct KernelStucki {
  static constexpr int F = 2, R = 2, D = 42;
  static constexpr int same[4] = {0, 8, 4, 0};
  static constexpr int w[3][7] = {{0, 2, 4, 8, 4, 2, 0}, {0, 1, 2, 4, 2, 1, 0}, {}};
};
struct KernelBurkes {
  static constexpr int F = 2, R = 1, D = 32;
  static constexpr int same[4] = {0, 8, 4, 0};
  static constexpr int w[3][7] = {{0, 2, 4, 8, 4, 2, 0}, {}, {}};
};
struct KernelSierra {
  static constexpr int F = 2, R = 2, D = 32;
  static constexpr int same[4] = {0, 5, 3, 0};
  static constexpr int w[3][7] = {{0, 2, 4, 5, 4, 2, 0}, {0, 0, 2, 3, 2, 0, 0}, {}};
};
struct KernelStevensonArce {
  static constexpr int F = 3, R = 3, D = 200;
  static constexpr int same[4] = {0, 0, 32, 0};
  static constexpr int w[3][7] = {{12, 0, 26, 0, 30, 0, 16}, {0, 12, 0, 26, 0, 12, 0}, {5, 0, 12, 0, 12, 0, 5}};
};
struct KernelJarvis {
  static constexpr int F = 2, R = 2, D = 48;
  static constexpr int same[4] = {0, 7, 5, 0};
  static constexpr int w[3][7] = {{0, 3, 5, 7, 5, 3, 0}, {0, 1, 3, 5, 3, 1, 0}, {}};
};

struct MethodShape {
  int rows, margin;
};
// Error rows and margin by method 0..8.
constexpr MethodShape kMethodShape[9] = {{0, 0}, {1, 1}, {2, 2}, {1, 2}, {2, 2}, {3, 3}, {2, 2}, {0, 0}, {0, 0}};

// ---- source rows -----------------------------------------------------------------------
// Before a row is dithered it is decoded, through the pixel-format layer's
// run table, into 8-bit channels (c.RowRgb); the kernels read only that.
// Palette indices go through the source palette, gray samples through the
// caller's lookup table or the 0-255 scale.  Each decoder is chosen at start.

void decode_indexed(DitherContext& c, uint8_t* in, int32_t width) {
  const uint32_t n = uint32_t(width);
  uint8_t* idx = c.RowWork;
  c.Codec->decode(in, 0, n, idx, SampleRange{});
  Rgb8* out = c.RowRgb;
  const RGBQUAD* pal = c.SourcePalette;
  for (uint32_t i = 0; i < n; ++i) {
    const RGBQUAD& q = pal[idx[i]];
    out[i] = Rgb8{q.rgbRed, q.rgbGreen, q.rgbBlue};
  }
}

template <bool Lut>
void decode_gray(DitherContext& c, uint8_t* in, int32_t width) {
  const uint32_t n = uint32_t(width);
  uint16_t* s = reinterpret_cast<uint16_t*>(c.RowWork);
  c.Codec->decode(in, 0, n, s, SampleRange{c.GrayShift, c.GrayMask});
  Rgb8* out = c.RowRgb;
  if constexpr (Lut) {
    const uint32_t* lut = c.GrayLut;
    const uint32_t lut_max = c.GrayLutLength - 1u;
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t v = s[i] > lut_max ? lut_max : s[i];  // the table is the caller's: never index past it
      const uint8_t* q = reinterpret_cast<const uint8_t*>(lut + v);
      out[i] = Rgb8{q[2], q[1], q[0]};
    }
  } else {
    const uint8_t* scale = c.GrayScale;
    for (uint32_t i = 0; i < n; ++i) {
      const uint8_t v = scale[s[i] & 255u];  // the mask keeps samples below 256
      out[i] = Rgb8{v, v, v};
    }
  }
}

// Sources whose palette is all grays, for the one-channel kernels: the
// levels go to RowGray.  An 8-bit source with the plain 0-255 gray palette
// is its own row of levels.
void decode_indexed_levels(DitherContext& c, uint8_t* in, int32_t width) {
  const uint32_t n = uint32_t(width);
  uint8_t* idx = c.RowWork;
  c.Codec->decode(in, 0, n, idx, SampleRange{});
  uint8_t* out = reinterpret_cast<uint8_t*>(c.RowRgb);
  const RGBQUAD* pal = c.SourcePalette;
  for (uint32_t i = 0; i < n; ++i) out[i] = pal[idx[i]].rgbRed;
  c.RowGray = out;
}

void decode_levels_in_place(DitherContext& c, uint8_t* in, int32_t) { c.RowGray = in; }

// 24-bit RGB rows already are 8-bit channels in the kernels' order: they
// read the caller's row itself (they never write it).
void decode_rgb_in_place(DitherContext& c, uint8_t* in, int32_t) { c.RowRgb = reinterpret_cast<Rgb8*>(in); }

void decode_colour(DitherContext& c, uint8_t* in, int32_t width) {
  c.Codec->decode8(in, 0, uint32_t(width), c.RowRgb, SampleRange{});
}

// 24/48 bits in the second colour space: each pixel is converted in place,
// inside the caller's row, to 24-bit BGR and then read.
void decode_order5(DitherContext& c, uint8_t* in, int32_t width) {
  const size_t stride = size_t(c.Stride);
  Rgb8* out = c.RowRgb;
  uint8_t* p = in;
  for (int32_t x = 0; x < width; ++x, p += stride) {
    V_ConvertBuffer(p, 1, c.SourceBits, 24, ORDER_BGR_ALT, ORDER_BGR, nullptr, nullptr);
    out[x] = Rgb8{p[2], p[1], p[0]};
  }
}

// The kernels' reader: one decoded pixel per next().
struct SrcRow {
  const Rgb8* p;
  explicit SrcRow(const DitherContext& c) : p(c.RowRgb) {}
  void next(int& r, int& g, int& b) {
    r = p->r;
    g = p->g;
    b = p->b;
    ++p;
  }
};

// ---- output: indices packed most significant bits first -------------------------------

struct Packer {
  uint8_t* p;
  uint32_t bits, mask, acc = 0, n = 0;
  Packer(uint8_t* out, uint32_t outputBits)
      : p(out), bits(outputBits >= 1 && outputBits <= 8 ? outputBits : 0u), mask((1u << bits) - 1u) {}
  void put(uint32_t index) {
    acc = (acc << bits) | (index & mask);
    n += bits;
    if (n >= 8) {
      n -= 8;
      *p++ = uint8_t(acc >> n);
    }
  }
  // The last partial byte keeps its other (low) bits.
  void finish() {
    if (n) {
      const uint8_t keep = uint8_t(0xFFu >> n);
      *p = uint8_t(((acc << (8 - n)) & ~uint32_t(keep)) | (*p & keep));
    }
  }
};

// ---- matching ---------------------------------------------------------------------------

// Cold path: search the matchable entries with the cell's corner colour and
// remember the answer in the cell.
[[gnu::noinline]] uint32_t resolve_cell(DitherContext& c, uint32_t cell) {
  const int32_t r = int32_t((cell >> 10) & 31u) << 3;
  const int32_t g = int32_t((cell >> 5) & 31u) << 3;
  const int32_t b = int32_t(cell & 31u) << 3;
  const uint32_t pos = find_palette_index(reinterpret_cast<const RGBQUAD*>(c.MatchList), c.MatchListCount, r, g, b);
  const uint32_t value = (pos < c.MatchListCount ? uint32_t(c.MatchList[pos].index) : 0u) + 1u;
  c.MatchTable[cell] = value;
  return value;
}

// Matchers are built once per row so that their parameters live in
// registers rather than being reloaded from the context after every store
// into the (int32) error rows.
struct MatchTable {
  static constexpr bool compare = false;
  DitherContext& c;
  uint32_t* table;
  explicit MatchTable(DitherContext& ctx) : c(ctx), table(ctx.MatchTable) {}
  uint32_t get(int r, int g, int b) const {
    const uint32_t cell = (uint32_t(r) >> 3) << 10 | (uint32_t(g) >> 3) << 5 | (uint32_t(b) >> 3);
    uint32_t v = table[cell];
    if (v == 0) [[unlikely]]
      v = resolve_cell(c, cell);
    return (v - 1u) & 255u;  // a caller's table may hold anything: stay inside the palette arrays
  }
};
// Modes 2 and 3: (2R + 5G + B + 4) >> 10 resp. ((...) >> 3) >> 6.
struct MatchGray {
  static constexpr bool compare = false;
  uint32_t shift;
  explicit MatchGray(const DitherContext& ctx) : shift(uint32_t(ctx.GrayMatchShift)) {}
  uint32_t get(int r, int g, int b) const { return uint32_t(2 * r + 5 * g + b + 4) >> shift; }
};
// Modes 4, 6, 7, 8, 9: channel bit fields.
struct MatchPack {
  static constexpr bool compare = false;
  uint32_t s0, s1, s2, s3, s4;
  explicit MatchPack(const DitherContext& ctx)
      : s0(uint32_t(ctx.PackShift[0])), s1(uint32_t(ctx.PackShift[1])), s2(uint32_t(ctx.PackShift[2])),
        s3(uint32_t(ctx.PackShift[3])), s4(uint32_t(ctx.PackShift[4])) {}
  uint32_t get(int r, int g, int b) const {
    return (uint32_t(r) >> s0) << s1 | (uint32_t(g) >> s2) << s3 | (uint32_t(b) >> s4);
  }
};
// Mode 5: black or, for anything else, full intensity (9-15).
struct Match16 {
  static constexpr bool compare = false;
  explicit Match16(const DitherContext&) {}
  uint32_t get(int r, int g, int b) const {
    const uint32_t n = (uint32_t(b) >> 7) << 2 | (uint32_t(g) >> 7) << 1 | (uint32_t(r) >> 7);
    return n | (n ? 8u : 0u);
  }
};
struct MatchCube {
  static constexpr bool compare = false;
  explicit MatchCube(const DitherContext&) {}
  uint32_t get(int r, int g, int b) const { return uint32_t((r / 51 * 6 + g / 51) * 6 + b / 51); }
};
// Ordered methods, mode 2: threshold the gray level against the matrix.
struct MatchCompare2 {
  static constexpr bool compare = true;
  explicit MatchCompare2(const DitherContext&) {}
  uint32_t cmp(int r, int g, int b, int m) const { return m < ((2 * r + 5 * g + b + 4) >> 3) ? 1u : 0u; }
};
// Ordered methods, mode 5: threshold each channel against the matrix.
struct MatchCompare16 {
  static constexpr bool compare = true;
  explicit MatchCompare16(const DitherContext&) {}
  uint32_t cmp(int r, int g, int b, int m) const {
    const uint32_t n = uint32_t(m < b) << 2 | uint32_t(m < g) << 1 | uint32_t(m < r);
    return n | (n ? 8u : 0u);
  }
};

// ---- row functions -------------------------------------------------------------------------

template <class M>
void row_plain(DitherContext& c, uint8_t* out, int32_t width) {
  if (width < 1) return;
  SrcRow src(c);
  const M match(c);
  Packer pk(out, c.OutputBits);
  for (int32_t x = 0; x < width; ++x) {
    int r, g, b;
    src.next(r, g, b);
    pk.put(match.get(r, g, b));
  }
  pk.finish();
}

// Black and white by threshold, eight pixels to a byte (n a multiple of 8):
// pixel x is 1 when the matrix value is below its gray level.
void threshold_gray_bytes(const Rgb8* in, int32_t n, const uint8_t* mrow, uint8_t* out) {
  for (int32_t x = 0; x < n; x += 8, in += 8) {
    uint32_t byte = 0;
    for (int k = 0; k < 8; ++k) {
      const uint32_t level = (2u * in[k].r + 5u * in[k].g + in[k].b + 4u) >> 3;
      byte |= uint32_t(mrow[k] < level) << (7 - k);
    }
    out[x >> 3] = uint8_t(byte);
  }
}

#if VK_DITHER_AVX2
// The same sixteen pixels at a time; returns how many pixels it did (a
// multiple of 16).  Lane j of a vector holds pixel 8 (j / 8) + 7 - j % 8, so
// the byte mask comes out most significant pixel first.
struct ThresholdShuffles {
  alignas(16) int8_t pick[3][3][16];  // [channel][source vector][lane]
  constexpr ThresholdShuffles() : pick{} {
    for (int ch = 0; ch < 3; ++ch)
      for (int v = 0; v < 3; ++v)
        for (int j = 0; j < 16; ++j) {
          const int at = 3 * (8 * (j / 8) + 7 - j % 8) + ch - 16 * v;
          pick[ch][v][j] = int8_t(at >= 0 && at < 16 ? at : -128);
        }
  }
};
constexpr ThresholdShuffles kThresholdShuffles;

__attribute__((target("avx2"))) int32_t threshold_gray_bytes_avx2(const Rgb8* in, int32_t n, const uint8_t* mrow,
                                                                  uint8_t* out) {
  const ThresholdShuffles& t = kThresholdShuffles;
  __m128i pick[3][3];
  for (int ch = 0; ch < 3; ++ch)
    for (int v = 0; v < 3; ++v) pick[ch][v] = _mm_load_si128(reinterpret_cast<const __m128i*>(t.pick[ch][v]));
  alignas(16) uint8_t above[16];  // matrix value + 1 per lane: level >= it means 1
  for (int j = 0; j < 16; ++j) above[j] = uint8_t(mrow[7 - j % 8] + 1);
  const __m128i m1 = _mm_load_si128(reinterpret_cast<const __m128i*>(above));
  const __m128i zero = _mm_setzero_si128(), five = _mm_set1_epi16(5), four = _mm_set1_epi16(4);
  const uint8_t* p = &in[0].r;
  int32_t x = 0;
  {
    // Thirty-two at a time: the two 128-bit halves take sixteen pixels each,
    // so the in-lane shuffles stay as they are.  (No lambdas here: they would
    // not inherit this function's instruction set.)
    __m256i pick2[3][3];
    for (int ch = 0; ch < 3; ++ch)
      for (int v = 0; v < 3; ++v) pick2[ch][v] = _mm256_broadcastsi128_si256(pick[ch][v]);
    const __m256i m2 = _mm256_broadcastsi128_si256(m1), zero2 = _mm256_setzero_si256(),
                  five2 = _mm256_set1_epi16(5), four2 = _mm256_set1_epi16(4);
    for (; x + 32 <= n; x += 32, p += 96) {
      __m256i src[3];
      for (int v = 0; v < 3; ++v)
        src[v] = _mm256_inserti128_si256(
            _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * v))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48 + 16 * v)), 1);
      __m256i ch[3];
      for (int k = 0; k < 3; ++k)
        ch[k] = _mm256_or_si256(
            _mm256_or_si256(_mm256_shuffle_epi8(src[0], pick2[k][0]), _mm256_shuffle_epi8(src[1], pick2[k][1])),
            _mm256_shuffle_epi8(src[2], pick2[k][2]));
      __m256i levels[2];
      for (int half = 0; half < 2; ++half) {
        __m256i w[3];
        for (int k = 0; k < 3; ++k)
          w[k] = half ? _mm256_unpackhi_epi8(ch[k], zero2) : _mm256_unpacklo_epi8(ch[k], zero2);
        const __m256i sum = _mm256_add_epi16(_mm256_add_epi16(_mm256_slli_epi16(w[0], 1), _mm256_mullo_epi16(w[1], five2)),
                                             _mm256_add_epi16(w[2], four2));
        levels[half] = _mm256_srli_epi16(sum, 3);
      }
      const __m256i gray = _mm256_packus_epi16(levels[0], levels[1]);
      const uint32_t mask = uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_max_epu8(gray, m2), gray)));
      for (int k = 0; k < 4; ++k) out[(x >> 3) + k] = uint8_t(mask >> (8 * k));
    }
  }
  for (; x + 16 <= n; x += 16, p += 48) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32));
    __m128i ch[3];
    for (int k = 0; k < 3; ++k)
      ch[k] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, pick[k][0]), _mm_shuffle_epi8(b, pick[k][1])),
                           _mm_shuffle_epi8(c, pick[k][2]));
    auto level = [&](__m128i r, __m128i g, __m128i bl) {
      const __m128i sum = _mm_add_epi16(_mm_add_epi16(_mm_slli_epi16(r, 1), _mm_mullo_epi16(g, five)),
                                        _mm_add_epi16(bl, four));
      return _mm_srli_epi16(sum, 3);
    };
    const __m128i lo = level(_mm_unpacklo_epi8(ch[0], zero), _mm_unpacklo_epi8(ch[1], zero),
                             _mm_unpacklo_epi8(ch[2], zero));
    const __m128i hi = level(_mm_unpackhi_epi8(ch[0], zero), _mm_unpackhi_epi8(ch[1], zero),
                             _mm_unpackhi_epi8(ch[2], zero));
    const __m128i gray = _mm_packus_epi16(lo, hi);
    const uint32_t mask = uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(gray, m1), gray)));
    out[x >> 3] = uint8_t(mask);
    out[(x >> 3) + 1] = uint8_t(mask >> 8);
  }
  return x;
}
#endif

template <class M>
void row_ordered(DitherContext& c, uint8_t* out, int32_t width) {
  const uint8_t* mrow = c.Matrix + (c.RowCounter & 7u) * 8u;
  ++c.RowCounter;
  if (width < 1) return;
  SrcRow src(c);
  const M match(c);
  if constexpr (std::is_same_v<M, MatchCompare2>) {
    if (c.OutputBits == 1) {
      const int32_t whole = width & ~7;
      int32_t done = 0;
#if VK_DITHER_AVX2
      if (plat::simd_level() == plat::Simd::avx2) done = threshold_gray_bytes_avx2(c.RowRgb, whole, mrow, out);
#endif
      threshold_gray_bytes(c.RowRgb + done, whole - done, mrow, out + (done >> 3));
      out += whole >> 3;
      src.p += whole;
      Packer pk(out, 1);
      for (int32_t x = whole; x < width; ++x) {
        int r, g, b;
        src.next(r, g, b);
        pk.put(match.cmp(r, g, b, mrow[x & 7]));
      }
      pk.finish();
      return;
    }
  }
  Packer pk(out, c.OutputBits);
  if constexpr (M::compare) {
    for (int32_t x = 0; x < width; ++x) {
      int r, g, b;
      src.next(r, g, b);
      pk.put(match.cmp(r, g, b, mrow[x & 7]));
    }
  } else {
    int off[8];
    for (int k = 0; k < 8; ++k) off[k] = dither_ordered_offset(c.MatchMode, c.OutputBits, mrow[k]);
    for (int32_t x = 0; x < width; ++x) {
      int r, g, b;
      src.next(r, g, b);
      const int o = off[x & 7];
      pk.put(match.get(clamp255(r + o), clamp255(g + o), clamp255(b + o)));
    }
  }
  pk.finish();
}

// Row rotation is done column by column: when a column's value for the
// current line is taken into the carry, the later lines' values move up one
// row in that same column.  Columns 0 .. F-1 rotate at line start, column
// x + F when pixel x is reached, so every column left of x + F already
// describes the next line while columns right of it still hold this line.
template <class K, class M>
void row_diffuse(DitherContext& c, uint8_t* out, int32_t width) {
  constexpr int F = K::F, R = K::R, D = K::D;
  int32_t* rows[3][3] = {};
  int32_t car[3][F];  // numerators of columns x .. x + F - 1 on this line
  const int32_t margin = c.Margin;
  for (int ch = 0; ch < 3; ++ch) {
    for (int r = 0; r < R; ++r) {
      rows[ch][r] = c.ErrorRows[ch * 3 + r] + margin;
      // Left-margin slots are written every line and never read; clearing
      // them keeps the accumulation from overflowing on very tall images.
      for (int k = 1; k <= margin; ++k) rows[ch][r][-k] = 0;
    }
    for (int k = 0; k < F; ++k) {
      car[ch][k] = rows[ch][0][k];
      if constexpr (R == 1) {
        rows[ch][0][k] = 0;
      } else if constexpr (R == 2) {
        rows[ch][0][k] = rows[ch][1][k];
        rows[ch][1][k] = 0;
      } else {
        rows[ch][0][k] = rows[ch][1][k];
        rows[ch][1][k] = rows[ch][2][k];
        rows[ch][2][k] = 0;
      }
    }
  }
  if (width < 1) return;

  SrcRow src(c);
  const M match(c);
  Packer pk(out, c.OutputBits);
  const RGBQUAD* pal = c.DestPalette;
  for (int32_t x = 0; x < width; ++x) {
    int v[3];
    src.next(v[0], v[1], v[2]);
    for (int ch = 0; ch < 3; ++ch) v[ch] = clamp255(v[ch] + car[ch][0] / D);  // truncates toward zero
    const uint32_t index = match.get(v[0], v[1], v[2]);
    pk.put(index);
    const RGBQUAD& q = pal[index];
    const int e3[3] = {v[0] - q.rgbRed, v[1] - q.rgbGreen, v[2] - q.rgbBlue};

    for (int ch = 0; ch < 3; ++ch) {
      const int e = e3[ch];
      int32_t* r0 = rows[ch][0] + x;
      int32_t* r1 = R >= 2 ? rows[ch][1] + x : nullptr;
      int32_t* r2 = R >= 3 ? rows[ch][2] + x : nullptr;
      for (int k = 0; k + 1 < F; ++k) car[ch][k] = car[ch][k + 1];
      car[ch][F - 1] = r0[F];
      for (int k = 1; k <= F; ++k)
        if (K::same[k]) car[ch][k - 1] += K::same[k] * e;
      if constexpr (R == 1) {
        r0[F] = K::w[0][F + 3] * e;
      } else if constexpr (R == 2) {
        r0[F] = r1[F] + K::w[0][F + 3] * e;
        r1[F] = K::w[1][F + 3] * e;
      } else {
        r0[F] = r1[F] + K::w[0][F + 3] * e;
        r1[F] = r2[F] + K::w[1][F + 3] * e;
        r2[F] = K::w[2][F + 3] * e;
      }
      for (int d = -3; d < F; ++d) {
        if (K::w[0][d + 3]) r0[d] += K::w[0][d + 3] * e;
        if constexpr (R >= 2)
          if (K::w[1][d + 3]) r1[d] += K::w[1][d + 3] * e;
        if constexpr (R >= 3)
          if (K::w[2][d + 3]) r2[d] += K::w[2][d + 3] * e;
      }
    }
  }
  pk.finish();
}

// The black-or-white answers of pixel(x), x = 0 .. width - 1, packed eight
// to a byte (OneBit) or outputBits each.
template <bool OneBit, class Pixel>
inline void pack_black_white(uint8_t* out, int32_t width, uint32_t outputBits, Pixel& pixel) {
  int32_t x = 0;
  if constexpr (OneBit) {
    for (; x + 8 <= width; x += 8) {
      uint32_t byte = 0;
      for (int k = 0; k < 8; ++k) byte = byte << 1 | pixel(x + k);
      *out++ = uint8_t(byte);
    }
    if (x < width) {  // the last partial byte keeps its other (low) bits
      const int n = width - x;
      uint32_t byte = 0;
      for (; x < width; ++x) byte = byte << 1 | pixel(x);
      const uint8_t keep = uint8_t(0xFFu >> n);
      *out = uint8_t(((byte << (8 - n)) & ~uint32_t(keep)) | (*out & keep));
    }
  } else {
    Packer pk(out, outputBits);
    for (; x < width; ++x) pk.put(pixel(x));
    pk.finish();
  }
}

// Black and white Floyd-Steinberg: every index is 0 (black) or 1 (white).
// The sums are those of the general row function; the error row's slots
// roll through registers (`left`: column x - 1, `here`: column x, both still
// collecting for the next line) and the numerator carried to the next pixel
// is computed for both outcomes before the index is known, then selected.
template <bool OneBit>
void row_fs_black_white(DitherContext& c, uint8_t* out, int32_t width) {
  int32_t* rows[3];
  int car[3], left[3] = {0, 0, 0}, here[3] = {0, 0, 0};
  for (int ch = 0; ch < 3; ++ch) {
    rows[ch] = c.ErrorRows[ch * 3] + c.Margin;
    rows[ch][-1] = 0;
    car[ch] = rows[ch][0];
    rows[ch][0] = 0;
  }
  if (width < 1) return;
  const Rgb8* src = c.RowRgb;
  auto pixel = [&](int32_t x) -> uint32_t {
    const int s[3] = {src[x].r, src[x].g, src[x].b};
    int v[3];
    for (int ch = 0; ch < 3; ++ch) v[ch] = clamp255(s[ch] + car[ch] / KernelFloydSteinberg::D);  // toward zero
    const uint32_t white = uint32_t(2 * v[0] + 5 * v[1] + v[2] + 4) >> 10;
    const int mask = -int(white);
    for (int ch = 0; ch < 3; ++ch) {
      int32_t* row = rows[ch];
      const int e = v[ch] - (mask & 255);
      row[x - 1] = left[ch] + 3 * e;
      left[ch] = here[ch] + 5 * e;
      here[ch] = e;
      car[ch] = (row[x + 1] + 7 * v[ch]) - (mask & 7 * 255);
    }
    return white;
  };
  pack_black_white<OneBit>(out, width, c.OutputBits, pixel);
  for (int ch = 0; ch < 3; ++ch) {
    rows[ch][width - 1] = left[ch];
    rows[ch][width] = here[ch];
  }
}

// Stops the compiler from merging a pointer back into the sum it came from,
// which would put the addition on the path the next pixel waits for.
template <class T>
inline void keep_apart(T& value) {
#if defined(__GNUC__)
  __asm__("" : "+r"(value));
#else
  (void)value;
#endif
}

// Error of a gray level u (before clamping) dithered to black or white,
// and seven times it.  Errors never exceed 127 either way, so u stays within
// -127 .. 382: the tables cover that with room to spare.
constexpr int kFsGrayLow = 256, kFsGrayLevels = 768;
constexpr int fs_gray_error(int i) {
  const int v = clamp255(i - kFsGrayLow);
  return v >= 128 ? v - 255 : v;
}
template <class T, int Times>
constexpr std::array<T, kFsGrayLevels> fs_gray_table() {
  std::array<T, kFsGrayLevels> t{};
  for (int i = 0; i < kFsGrayLevels; ++i) t[size_t(i)] = T(Times * fs_gray_error(i));
  return t;
}
// Seven times the error is pointer-wide, as the sum it joins.
constexpr std::array<std::ptrdiff_t, kFsGrayLevels> kFsGrayError7 = fs_gray_table<std::ptrdiff_t, 7>();
constexpr std::array<int32_t, kFsGrayLevels> kFsGrayError = fs_gray_table<int32_t, 1>();

// The same for a source of grays.  All three channels then carry the same
// errors, so one is enough: the level is white from 128 up, which is where
// (2v + 5v + v + 4) >> 10 turns to 1.  The other channels' error rows stay
// zero; nothing reads them.
template <bool OneBit>
void row_fs_black_white_gray(DitherContext& c, uint8_t* out, int32_t width) {
  int32_t* row = c.ErrorRows[0] + c.Margin;
  row[-1] = 0;
  // Pointer-wide so the step's division feeds the table's address directly.
  std::ptrdiff_t car = row[0];
  int left = 0, here = 0;
  row[0] = 0;
  if (width < 1) return;
  const uint8_t* src = c.RowGray;
  const std::ptrdiff_t* error7 = kFsGrayError7.data() + kFsGrayLow;
  const int32_t* error = kFsGrayError.data() + kFsGrayLow;
  auto pixel = [&](int32_t x) -> uint32_t {
    // The level with its pending error is looked up rather than clamped and
    // compared, and the level's own offset is added before the error is
    // known: the next pixel waits on a division and one load.
    const std::ptrdiff_t* error7_here = error7 + src[x];
    keep_apart(error7_here);
    const std::ptrdiff_t q = car / KernelFloydSteinberg::D;  // toward zero
    const int e = error[src[x] + q];
    row[x - 1] = left + 3 * e;
    left = here + 5 * e;
    here = e;
    car = std::ptrdiff_t(row[x + 1]) + error7_here[q];
    return src[x] + int(q) >= 128;  // white from 128 up
  };
  pack_black_white<OneBit>(out, width, c.OutputBits, pixel);
  row[width - 1] = left;
  row[width] = here;
}

// ---- picking the row function (once, at start) ---------------------------------------------

struct Plain {
  template <class M>
  static DitherRowFn get() { return &row_plain<M>; }
};
template <class K>
struct Diffuse {
  template <class M>
  static DitherRowFn get() { return &row_diffuse<K, M>; }
};

template <class Rowf>
DitherRowFn by_mode(int32_t mode) {
  switch (mode) {
    case MATCH_OWN_TABLE:
    case MATCH_USER_TABLE: return Rowf::template get<MatchTable>();
    case MATCH_FIXED_2:
    case MATCH_FIXED_4: return Rowf::template get<MatchGray>();
    case MATCH_FIXED_16: return Rowf::template get<Match16>();
    case MATCH_FIXED_CUBE: return Rowf::template get<MatchCube>();
    default: return Rowf::template get<MatchPack>();
  }
}

DitherRowFn by_mode_ordered(int32_t mode) {
  switch (mode) {
    case MATCH_OWN_TABLE:
    case MATCH_USER_TABLE: return &row_ordered<MatchTable>;
    case MATCH_FIXED_2: return &row_ordered<MatchCompare2>;
    case MATCH_FIXED_4: return &row_ordered<MatchGray>;
    case MATCH_FIXED_16: return &row_ordered<MatchCompare16>;
    case MATCH_FIXED_CUBE: return &row_ordered<MatchCube>;
    default: return &row_ordered<MatchPack>;
  }
}

DitherRowFn pick_row(int32_t method, int32_t mode, uint32_t colors, uint32_t outputBits) {
  // Black and white, the commonest error diffusion (black alone takes the
  // general path).
  if (method == DITHER_FLOYD_STEINBERG && mode == MATCH_FIXED_2 && colors == 2)
    return outputBits == 1 ? &row_fs_black_white<true> : &row_fs_black_white<false>;
  switch (method) {
    case DITHER_FLOYD_STEINBERG: return by_mode<Diffuse<KernelFloydSteinberg>>(mode);
    case DITHER_STUCKI: return by_mode<Diffuse<KernelStucki>>(mode);
    case DITHER_BURKES: return by_mode<Diffuse<KernelBurkes>>(mode);
    case DITHER_SIERRA: return by_mode<Diffuse<KernelSierra>>(mode);
    case DITHER_STEVENSON_ARCE: return by_mode<Diffuse<KernelStevensonArce>>(mode);
    case DITHER_JARVIS: return by_mode<Diffuse<KernelJarvis>>(mode);
    case DITHER_ORDERED:
    case DITHER_CLUSTERED: return by_mode_ordered(mode);
    default: return by_mode<Plain>(mode);
  }
}

// ---- start ---------------------------------------------------------------------------------

// Smallest b of 1..8 with colors <= 2^b.
int32_t bits_for_colors(int32_t colors) {
  int32_t b = 1;
  while (b < 8 && colors > (1 << b)) ++b;
  return b;
}

// Gray sample bit range: keep the top `count` bits (at most maxBits) of the
// range low .. high.  Ranges that describe no bits read as 0 (mask 0).
void gray_range(int32_t bits, int32_t maxBits, int32_t lowBit, int32_t highBit, DitherContext& c) {
  const BitRange r = bit_range(bits, maxBits, lowBit, highBit);
  if (r.count <= 0) {
    c.GrayBits = c.GrayMask = c.GrayShift = 0;
    return;
  }
  c.GrayBits = uint32_t(r.count);
  c.GrayMask = low_bits(r.count);
  c.GrayShift = clamp_shift(r.shift_for(r.count));
}

const uint32_t kBlackLutEntry = 0;

int32_t start_dithering(BitmapHandle* bm, const RGBQUAD* palette, int32_t colors, int32_t outputBits,
                        uint32_t* userTable) {
  if (!bm) return RESULT_BAD_PARAMETER;
  const int32_t bits = bm->BitsPerPixel;
  if (!valid_bitmap_depth(bits) || colors < 1 || colors > 256) return RESULT_BAD_PARAMETER;
  const int32_t method = bm->DitheringMethod;
  if (uint32_t(method) > 8u) return RESULT_BAD_PARAMETER;

  // Destination palette and match mode.
  const int32_t classBits = bits_for_colors(colors);
  const RGBQUAD* fixed = fixed_palette(classBits);
  const size_t palBytes = size_t(colors) * sizeof(RGBQUAD);
  int32_t mode;
  const RGBQUAD* pal = palette;
  if (userTable) {
    mode = MATCH_USER_TABLE;
    if (!pal) pal = fixed;
  } else if (!pal) {
    pal = fixed;
    mode = classBits + 1;
  } else if (fixed && std::memcmp(pal, fixed, palBytes) == 0) {
    mode = classBits + 1;  // a prefix of the fixed palette counts as the fixed palette
  } else if (classBits == 8 && std::memcmp(pal, color_cube(), palBytes) == 0) {
    mode = MATCH_FIXED_CUBE;
  } else {
    mode = MATCH_OWN_TABLE;
  }
  if (!pal) return RESULT_FAIL;

  // One block: context, error rows, own match table.
  const MethodShape shape = kMethodShape[method];
  const uint64_t width = bm->Width > 0 ? uint64_t(bm->Width) : 0u;
  const uint64_t rowLength = width + 2u * uint64_t(shape.margin);
  const uint64_t head = (uint64_t(sizeof(DitherContext)) + 15u) & ~uint64_t(15);
  const uint64_t rowsBytes = 3u * uint64_t(shape.rows) * rowLength * sizeof(int32_t);
  const uint64_t tableBytes = mode == MATCH_OWN_TABLE ? uint64_t(kColorCells) * sizeof(uint32_t) : 0u;
  // Decoded source row (8-bit channels) and the indices or gray samples it
  // is made from.
  const uint64_t rgbBytes = (3u * width + 15u) & ~uint64_t(15);
  const uint64_t workBytes = 2u * width;
  const uint64_t total = head + tableBytes + rowsBytes + rgbBytes + workBytes;
  if (rowLength > UINT32_MAX || total > uint64_t(SIZE_MAX)) return RESULT_FAIL;
  void* block = V_Calloc(1, size_t(total));
  if (!block) return RESULT_FAIL;
  ScopeExit release([&] { V_Free(block); });

  auto* c = static_cast<DitherContext*>(block);
  uint8_t* base = static_cast<uint8_t*>(block);
  c->BlockSize = size_t(total);
  c->ColorCount = uint32_t(colors);
  c->SourceBits = bits;
  c->Method = method;
  c->MatchMode = mode;
  c->OutputBits = uint32_t(outputBits);
  c->ErrorRowCount = shape.rows;
  c->ErrorRowLength = uint32_t(rowLength);
  c->Width = int32_t(width);
  c->Margin = shape.margin;
  c->Matrix = method == DITHER_CLUSTERED ? kClusteredMatrix : kOrderedMatrix;
  if (mode == MATCH_OWN_TABLE) c->MatchTable = reinterpret_cast<uint32_t*>(base + head);
  if (mode == MATCH_USER_TABLE) c->MatchTable = userTable;
  int32_t* rowMem = reinterpret_cast<int32_t*>(base + head + tableBytes);
  for (int ch = 0; ch < 3; ++ch)
    for (int r = 0; r < shape.rows; ++r) c->ErrorRows[ch * 3 + r] = rowMem + (ch * shape.rows + r) * rowLength;
  c->RowRgb = reinterpret_cast<Rgb8*>(base + head + tableBytes + rowsBytes);
  c->RowWork = base + head + tableBytes + rowsBytes + rgbBytes;

  std::memcpy(c->DestPalette, pal, palBytes);

  // Entries flagged in bits 0-1 of the reserved byte are never chosen by
  // table matching.  When every entry is flagged there would be nothing to
  // match against, so the whole palette is used instead (flags ignored).
  if (mode == MATCH_OWN_TABLE || mode == MATCH_USER_TABLE) {
    uint32_t n = 0;
    for (int32_t i = 0; i < colors; ++i)
      if ((pal[i].rgbReserved & 3u) == 0)
        c->MatchList[n++] = {pal[i].rgbBlue, pal[i].rgbGreen, pal[i].rgbRed, uint8_t(i)};
    if (n == 0)
      for (int32_t i = 0; i < colors; ++i)
        c->MatchList[n++] = {pal[i].rgbBlue, pal[i].rgbGreen, pal[i].rgbRed, uint8_t(i)};
    c->MatchListCount = n;
  }
  if (mode == MATCH_FIXED_2 || mode == MATCH_FIXED_4) c->GrayMatchShift = mode == MATCH_FIXED_2 ? 10 : 9;
  static constexpr int32_t kPack[11][5] = {{}, {}, {}, {}, {7, 2, 7, 1, 7}, {}, {6, 3, 6, 1, 7},
                                           {6, 4, 6, 2, 6}, {6, 5, 5, 2, 6}, {5, 5, 5, 2, 6}, {}};
  std::memcpy(c->PackShift, kPack[mode], sizeof c->PackShift);

  // Source layout: how its rows decode into 8-bit channels.
  const int32_t order = bm->Order;
  if (bits <= 8) {
    c->Decode = decode_indexed;
    c->Codec = &run_codec(bits, kGray);
    const uint32_t count = bm->ColorCount < 256u ? bm->ColorCount : 256u;
    if (count > 0 && bm->Palette &&
        V_GetBitmapPaletteEntries(bm, 0, int32_t(count), c->SourcePalette) <= 0)
      return RESULT_FAIL;
  } else if (bits == 12 || (bits == 16 && order == ORDER_GRAY)) {
    // 12-bit rows are gray whatever their Order says, so their bit range is
    // always worked out; a range left empty would read every sample as 0.
    const bool lut = bm->GrayLut && (bm->Flags & BITMAP_GRAY_FLAG);
    gray_range(bits, lut ? bits : 8, bm->LowBit, bm->HighBit, *c);
    if (lut) {
      c->GrayLut = bm->GrayLut;
      c->GrayLutLength = bm->GrayLutLength;
      if (c->GrayLutLength == 0) {  // an empty table reads as black
        c->GrayLut = &kBlackLutEntry;
        c->GrayLutLength = 1;
      }
    } else {
      for (uint32_t v = 0; v <= c->GrayMask && v < 256u; ++v)
        c->GrayScale[v] = uint8_t(c->GrayMask < 255u ? v * 255u / c->GrayMask : v);
    }
    c->Decode = lut ? decode_gray<true> : decode_gray<false>;
    c->Codec = &run_codec(bits, kGray);
  } else if ((bits == 24 || bits == 48) && order != ORDER_RGB && order != ORDER_BGR) {
    c->Decode = decode_order5;
    c->Stride = bits / 8;
  } else {
    c->Decode = bits == 24 && order == ORDER_RGB ? decode_rgb_in_place : decode_colour;
    c->Codec = &run_codec(bits, order == ORDER_BGR ? kBgr : kRgb);
  }
  if (order == ORDER_GRAY && bits != 12 && bits != 16) gray_range(bits, 8, bm->LowBit, bm->HighBit, *c);

  c->Row = pick_row(method, mode, c->ColorCount, c->OutputBits);
  if (bits <= 8 && (c->Row == &row_fs_black_white<true> || c->Row == &row_fs_black_white<false>)) {
    // A palette of grays needs one error channel, not three.
    bool grays = true, plain = bits == 8;
    for (int i = 0; i < 256; ++i) {
      const RGBQUAD& q = c->SourcePalette[i];
      grays = grays && q.rgbRed == q.rgbGreen && q.rgbRed == q.rgbBlue;
      plain = plain && q.rgbRed == i;
    }
    if (grays) {
      c->Decode = plain ? decode_levels_in_place : decode_indexed_levels;
      c->Row = c->OutputBits == 1 ? &row_fs_black_white_gray<true> : &row_fs_black_white_gray<false>;
    }
  }

  // Pre-seed: exact palette colours resolve without a search; the first
  // entry that falls in a cell wins.  A caller's table is seeded in place,
  // so this comes after everything that can fail.
  if (c->MatchTable) {
    for (uint32_t k = 0; k < c->MatchListCount; ++k) {
      const DitherMatchEntry& e = c->MatchList[k];
      const uint32_t cell = uint32_t(e.red >> 3) << 10 | uint32_t(e.green >> 3) << 5 | uint32_t(e.blue >> 3);
      if (c->MatchTable[cell] == 0) c->MatchTable[cell] = uint32_t(e.index) + 1u;
    }
  }

  release.dismiss();
  bm->DitherState = c;
  return RESULT_OK;
}

}  // namespace

int32_t dither_ordered_offset(int32_t mode, uint32_t outputBits, int32_t m) {
  switch (mode) {
    case MATCH_OWN_TABLE:
    case MATCH_USER_TABLE:
      switch (outputBits) {
        case 1: return m - 128;
        case 2: return (m >> 1) - 64;
        case 3: return m / 3 - 42;
        case 4: return (m >> 2) - 32;
        case 5: return m / 5 - 25;
        case 6: return m / 6 - 21;
        case 7: return m / 7 - 18;
        case 8: return (m >> 3) - 16;
        default: return 0;
      }
    case MATCH_FIXED_4: return (m >> 1) - 64;
    case MATCH_FIXED_8: return m / 3 - 42;
    case MATCH_FIXED_32: return m / 5 - 25;
    case MATCH_FIXED_64: return m / 6 - 21;
    case MATCH_FIXED_128: return m / 7 - 18;
    case MATCH_FIXED_256: return (m >> 3) - 16;
    case MATCH_FIXED_CUBE: return m / 6 - 21;
    default: return 0;  // modes 2 and 5 threshold against the matrix instead
  }
}

}  // namespace vk

using namespace vk;

extern "C" {

VK_API int32_t VK_CALL V_StartDitheringExt(BitmapHandle* bitmap, const RGBQUAD* palette, int32_t colors,
                                           int32_t outputBits, uint32_t* userMatchTable) {
  return api_call([&] { return start_dithering(bitmap, palette, colors, outputBits, userMatchTable); });
}

VK_API int32_t VK_CALL V_StartDithering(BitmapHandle* bitmap, const RGBQUAD* palette, int32_t colors) {
  return api_call([&]() -> int32_t {
    if (!bitmap || colors < 1 || colors > 256) return RESULT_BAD_PARAMETER;
    return start_dithering(bitmap, palette, colors, bits_for_colors(colors), nullptr);
  });
}

VK_API int32_t VK_CALL V_DitherLine(BitmapHandle* bitmap, uint8_t* inputRow, uint8_t* outputRow) {
  return api_call([&]() -> int32_t {
    if (!bitmap || !bitmap->DitherState || !inputRow || !outputRow) return RESULT_BAD_PARAMETER;
    DitherContext& c = *static_cast<DitherContext*>(bitmap->DitherState);
    // The error rows were sized for the width at start; never run past it.
    const int32_t width = bitmap->Width < c.Width ? bitmap->Width : c.Width;
    if (width > 0) c.Decode(c, inputRow, width);
    c.Row(c, outputRow, width);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_StopDithering(BitmapHandle* bitmap) {
  return api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    if (!bitmap->DitherState) return RESULT_OK;
    // Context, error rows and an own match table are one block; a caller's
    // table is not ours to free.
    V_Free(bitmap->DitherState);
    bitmap->DitherState = nullptr;
    return RESULT_OK;
  });
}

}  // extern "C"
