// rotate.cpp - the turn by any angle: the size of the turned image, the
// integer walk through the source, and the three samplings (nearest, a
// two-step linear blend, a 4 x 4 cubic spline), one row kernel per depth
// family and quality.
//
// Positions are a whole pixel plus a fraction in 1/16384 pixel.  The walk
// adds cos and sin per destination pixel and -sin, cos per row, and after
// each addition moves the whole part by one pixel when the fraction passes
// half a pixel, so the whole part is always the nearest source pixel.  The
// start position is brought into that range the same way before the first
// pixel.  Everything but the spline is integer; the spline is single
// precision with no contraction of products into sums, so every build gives
// the same pixels.
//
// For speed a row is rendered in runs: the pixels outside the source take
// the fill, those near its edges are sampled with a test per sample, and
// the run between reads the source with no tests; the blends take the
// components side by side in vector lanes.
#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "dispatch.h"
#include "geometry.h"
#include "op.h"
#include "pixel.h"
#include "pixel_format.h"

namespace vk {
namespace {

constexpr int32_t kOne = 16384, kHalf = 8192;

// One coordinate of the walk.
struct Axis {
  int32_t whole, frac;
  void add(int32_t step) {
    frac += step;
    const int32_t up = frac >= kHalf, down = frac <= -kHalf;
    frac += (down - up) * kOne;
    whole += up - down;
  }
};

// Whole part and fraction of base + num / 16384 (quotient truncated, the
// remainder with the sign of num), brought into the walk's range.
Axis axis_of(int32_t base, int64_t num) {
  Axis a{base + int32_t(num / kOne), int32_t(num % kOne)};
  a.add(0);
  return a;
}

// What every row kernel reads: the source as packed rows in memory, the
// steps, and the fill value (as stored, and per component).
struct Job {
  const uint8_t* src;
  size_t bpl;
  int32_t w, h;      // source
  int32_t dw;        // destination width
  int32_t cs, sn;    // cos and sin of the turn
  uint64_t fill;     // the fill as a stored pixel value
};

bool inside(const Job& j, int32_t x, int32_t y) { return uint32_t(x) < uint32_t(j.w) && uint32_t(y) < uint32_t(j.h); }

// ---- depth families ---------------------------------------------------------
// Each reads and writes a pixel as N integer components of at most kMax
// (the stored channels: bytes, 16-bit words, 5-bit fields or a 12-bit
// sample) and gives the fill's components.  kSize > 0: pixels are whole
// bytes, which nearest sampling copies as they are.

template <int N>
struct Bytes {
  static constexpr int kN = N, kMax = 255, kSize = N;
  static void get(const uint8_t* row, int32_t x, int32_t* c) {
    const uint8_t* p = row + size_t(x) * N;
    for (int i = 0; i < N; ++i) c[i] = p[i];
  }
  static void put(uint8_t* row, int32_t x, const int32_t* c) {
    uint8_t* p = row + size_t(x) * N;
    for (int i = 0; i < N; ++i) p[i] = uint8_t(c[i]);
  }
  static void of_value(uint64_t v, int32_t* c) {
    for (int i = 0; i < N; ++i) c[i] = int32_t((v >> (8 * i)) & 0xFFu);
  }
};

template <int N>
struct Words {
  static constexpr int kN = N, kMax = 65535, kSize = 2 * N;
  static void get(const uint8_t* row, int32_t x, int32_t* c) {
    const uint8_t* p = row + size_t(x) * 2 * N;
    for (int i = 0; i < N; ++i) c[i] = int32_t(le16(p + 2 * i));
  }
  static void put(uint8_t* row, int32_t x, const int32_t* c) {
    uint8_t* p = row + size_t(x) * 2 * N;
    for (int i = 0; i < N; ++i) put_le16(p + 2 * i, uint32_t(c[i]));
  }
  static void of_value(uint64_t v, int32_t* c) {
    for (int i = 0; i < N; ++i) c[i] = int32_t((v >> (16 * i)) & 0xFFFFu);
  }
};

// 16-bit colour: the three 5-bit fields are the components.
struct Fields555 {
  static constexpr int kN = 3, kMax = 31, kSize = 2;
  static void split(uint32_t w, int32_t* c) {
    c[0] = int32_t(w & 31u);
    c[1] = int32_t((w >> 5) & 31u);
    c[2] = int32_t((w >> 10) & 31u);
  }
  static void get(const uint8_t* row, int32_t x, int32_t* c) { split(le16(row + 2 * size_t(x)), c); }
  static void put(uint8_t* row, int32_t x, const int32_t* c) {
    put_le16(row + 2 * size_t(x), uint32_t(c[0]) | (uint32_t(c[1]) << 5) | (uint32_t(c[2]) << 10));
  }
  static void of_value(uint64_t v, int32_t* c) { split(uint32_t(v), c); }
};

struct Sample12 {
  static constexpr int kN = 1, kMax = 4095, kSize = 0;
  static void get(const uint8_t* row, int32_t x, int32_t* c) { c[0] = int32_t(Gray12::pixel(row, size_t(x))); }
  static void put(uint8_t* row, int32_t x, const int32_t* c) { Gray12::put(row, size_t(x), uint32_t(c[0])); }
  static void of_value(uint64_t v, int32_t* c) { c[0] = int32_t(v & 0xFFFu); }
};

// Packed pixels read and written whole (nearest sampling only): indices of
// 1-7 bits, the 12-bit sample.
template <class L>
struct Whole {
  static uint32_t get(const uint8_t* row, int32_t x) { return uint32_t(L::pixel(row, size_t(x))); }
  static void put(uint8_t* row, int32_t x, uint32_t v) { L::put(row, size_t(x), v); }
};

// ---- the walk along a row -----------------------------------------------------
// Along a destination row each coordinate moves by one constant step per
// pixel, so pixel i's position (whole x 16384 + fraction) is exactly the row
// start's plus i steps, and the walk's whole part is that position rounded
// to the nearest pixel.  On an exact half pixel the walk stands on the pixel
// it was heading for (the step's sign); a step of whole pixels (or none)
// never changes the fraction, so there the row start's side stays.  Adding
// the bias that rounds half pixels to that side makes pixel i's whole part
// one shift of the running sum; the row start (pixel 0) keeps its own side,
// which may differ, and is read from the walk itself.
struct Track {
  int64_t at;  // pixel 0's position plus the bias
  int32_t bias;
  int64_t pos(int32_t i, int32_t step) const { return at + int64_t(i) * step; }
};
Track track(const Axis& a, int32_t step) {
  const bool up = step % kOne == 0 ? a.frac != kHalf : step > 0;
  const int32_t bias = up ? kHalf : kHalf - 1;
  return Track{int64_t(a.whole) * kOne + a.frac + bias, bias};
}

// a / d rounded down, d > 0.
int64_t floor_div(int64_t a, int64_t d) { return a / d - (a % d < 0); }

// Narrows [from, to) to the pixels whose whole part lies in lo..hi: the
// sums in lo x 16384 .. (hi + 1) x 16384 - 1, a run since the sum moves one
// way.
void narrow(const Track& t, int32_t step, int32_t lo, int32_t hi, int32_t& from, int32_t& to) {
  const int64_t l = int64_t(lo) * kOne - t.at, u = (int64_t(hi) + 1) * kOne - t.at;  // l <= i x step < u
  int64_t a = from, b = to;
  if (lo > hi) b = a;
  else if (step > 0) a = -floor_div(-l, step), b = -floor_div(-u, step);
  else if (step < 0) a = floor_div(-u, -step) + 1, b = floor_div(-l, -step) + 1;
  else if (l > 0 || u <= 0) b = a;
  from = int32_t(std::clamp<int64_t>(a, from, to));
  to = std::max(from, int32_t(std::clamp<int64_t>(b, from, to)));
}

// Walks one destination row.  Pixels whose whole position is outside the
// source go to fill(first, end) in runs.  The others go to pixel(checked,
// i, x whole, x fraction, y whole, y fraction): checked is std::true_type
// where samples within Reach pixels of the whole position may leave the
// source and must be tested, std::false_type in the run between, which
// reads the source without tests.
template <int Reach, class Pixel, class Fill>
inline void walk_row(const Job& j, Axis x, Axis y, Pixel pixel, Fill fill) {
  if (inside(j, x.whole, y.whole)) pixel(std::true_type{}, 0, x.whole, x.frac, y.whole, y.frac);
  else fill(0, 1);
  const Track tx = track(x, j.cs), ty = track(y, j.sn);
  int32_t in = 1, in_end = j.dw;
  narrow(tx, j.cs, 0, j.w - 1, in, in_end);
  narrow(ty, j.sn, 0, j.h - 1, in, in_end);
  int32_t from = in, to = in_end;
  if (Reach) {
    narrow(tx, j.cs, Reach, j.w - 1 - Reach, from, to);
    narrow(ty, j.sn, Reach, j.h - 1 - Reach, from, to);
  }
  auto run = [&](auto checked, int32_t first, int32_t end) {
    int64_t px = tx.pos(first, j.cs), py = ty.pos(first, j.sn);
    for (int32_t i = first; i < end; ++i, px += j.cs, py += j.sn)
      pixel(checked, i, int32_t(px >> 14), int32_t(px & (kOne - 1)) - tx.bias, int32_t(py >> 14),
            int32_t(py & (kOne - 1)) - ty.bias);
  };
  fill(1, in);
  run(std::true_type{}, in, from);
  run(std::false_type{}, from, to);
  run(std::true_type{}, to, in_end);
  fill(in_end, j.dw);
}

// ---- row kernels ------------------------------------------------------------
// Each renders destination row `out` from the row start (x, y).  Each works
// on a local copy of the job, which stores to the row cannot change.

template <int S>
void nearest_bytes(const Job& job, uint8_t* out, Axis x, Axis y) {
  const Job j = job;
  uint8_t fill[8];
  for (int i = 0; i < 8; ++i) fill[i] = uint8_t(j.fill >> (8 * i));
  walk_row<0>(
      j, x, y,
      [&](auto, int32_t i, int32_t xw, int32_t, int32_t yw, int32_t) {
        std::memcpy(out + size_t(i) * S, j.src + size_t(yw) * j.bpl + size_t(xw) * S, S);
      },
      [&](int32_t first, int32_t end) {
        for (int32_t i = first; i < end; ++i) std::memcpy(out + size_t(i) * S, fill, S);
      });
}

template <class L>
void nearest_packed(const Job& job, uint8_t* out, Axis x, Axis y) {
  const Job j = job;
  walk_row<0>(
      j, x, y,
      [&](auto, int32_t i, int32_t xw, int32_t, int32_t yw, int32_t) {
        Whole<L>::put(out, i, Whole<L>::get(j.src + size_t(yw) * j.bpl, xw));
      },
      [&](int32_t first, int32_t end) {
        for (int32_t i = first; i < end; ++i) Whole<L>::put(out, i, uint32_t(j.fill));
      });
}

// Up to four components go through the blends side by side, one per lane of
// a vector: each lane takes the same operations in the same order as a
// single number would, so the pixels do not depend on the lanes.
typedef int32_t IntLanes __attribute__((vector_size(16)));
typedef float Lanes __attribute__((vector_size(16)));

#if defined(__SSE2__)
// The low four bytes of v, one per 32-bit lane.
inline __m128i widen_bytes(__m128i v) {
  const __m128i z = _mm_setzero_si128();
  return _mm_unpacklo_epi16(_mm_unpacklo_epi8(v, z), z);
}
#endif

// A pixel's components in lanes.
template <class F>
inline IntLanes get_lanes(const uint8_t* row, int32_t x) {
  IntLanes l{};
#if defined(__SSE2__)
  if constexpr (F::kMax == 255) {
    const uint8_t* p = row + size_t(x) * F::kN;
    uint32_t bytes = p[0];
    if constexpr (F::kN == 3) {
      uint16_t low;
      std::memcpy(&low, p, 2);
      bytes = low | uint32_t(p[2]) << 16;
    }
    if constexpr (F::kN == 4) std::memcpy(&bytes, p, 4);
    return IntLanes(widen_bytes(_mm_cvtsi32_si128(int32_t(bytes))));
  }
#endif
  int32_t c[F::kN];
  F::get(row, x, c);
  for (int k = 0; k < F::kN; ++k) l[k] = c[k];
  return l;
}

// Stores a pixel's components, each clamped to 0..kMax (whole bytes by
// saturating packs, which clamp the same; x86 stores the low byte first).
template <class F>
inline void put_lanes(uint8_t* row, int32_t x, IntLanes v) {
#if defined(__SSE2__)
  if constexpr (F::kMax == 255) {
    const __m128i w = _mm_packs_epi32(__m128i(v), __m128i(v));
    const uint32_t bytes = uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(w, w)));
    uint8_t* p = row + size_t(x) * F::kN;
    if constexpr (F::kN == 3) {
      const uint16_t low = uint16_t(bytes);
      std::memcpy(p, &low, 2);
      p[2] = uint8_t(bytes >> 16);
    } else {
      std::memcpy(p, &bytes, F::kN);
    }
    return;
  }
#endif
  int32_t c[F::kN];
  for (int k = 0; k < F::kN; ++k) c[k] = std::clamp(int32_t(v[k]), 0, F::kMax);
  F::put(row, x, c);
}

// A pixel's components; with Checked, the fill's outside the source.
template <class F, class Checked>
inline IntLanes fetch(const Job& j, const IntLanes& fill, int32_t x, int32_t y) {
  if (Checked::value && !inside(j, x, y)) return fill;
  return get_lanes<F>(j.src + size_t(y) * j.bpl, x);
}

// Walks one destination row of interpolated pixels: a pixel whose whole
// position is outside the source takes the fill, any other the components
// that sample(checked, fill, x, y) gives (a lambda, inlined per family).
template <class F, int Reach, class Sample>
void interpolate_row(const Job& j, uint8_t* out, Axis x, Axis y, Sample sample) {
  IntLanes fill{};
  {
    int32_t c[F::kN];
    F::of_value(j.fill, c);
    for (int k = 0; k < F::kN; ++k) fill[k] = c[k];
  }
  uint8_t stored[8 + 4] = {};
  put_lanes<F>(stored, 0, fill);
  walk_row<Reach>(
      j, x, y,
      [&](auto checked, int32_t i, int32_t xw, int32_t xf, int32_t yw, int32_t yf) {
        put_lanes<F>(out, i, sample(checked, fill, Axis{xw, xf}, Axis{yw, yf}));
      },
      [&](int32_t first, int32_t end) {
        if constexpr (F::kSize > 0) {  // whole bytes: the fill pixel's, copied
          for (int32_t i = first; i < end; ++i) std::memcpy(out + size_t(i) * F::kSize, stored, F::kSize);
        } else {
          for (int32_t i = first; i < end; ++i) put_lanes<F>(out, i, fill);
        }
      });
}

// d x f for a difference of two components and a fraction's size (at most
// 8192).  Differences of components below 32768 fit in 16 bits, where one
// multiply-add per lane (d times f plus d's sign half times zero) gives the
// exact product.
template <class F>
inline IntLanes times(IntLanes d, int32_t f) {
#if defined(__SSE2__)
  if constexpr (F::kMax < 32768) return IntLanes(_mm_madd_epi16(__m128i(d), _mm_set1_epi32(f)));
#endif
  return d * f;
}

// The nearest pixel P, blended toward its horizontal neighbour Q by the x
// fraction, then toward its raw vertical neighbour by the y fraction:
// P += ((Q - P) x |f|) / 16384, truncating toward zero.  (For f < 0 this is
// P += ((P - Q) x f) / 16384 with Q on the left: the same product.)
template <class F>
void linear(const Job& job, uint8_t* out, Axis x, Axis y) {
  const Job j = job;
  interpolate_row<F, 1>(j, out, x, y, [&j](auto checked, const IntLanes& fill, Axis x, Axis y) {
    using C = decltype(checked);
    IntLanes p = fetch<F, std::false_type>(j, fill, x.whole, y.whole);
    const IntLanes q = fetch<F, C>(j, fill, x.whole + (x.frac < 0 ? -1 : 1), y.whole);
    const IntLanes r = fetch<F, C>(j, fill, x.whole, y.whole + (y.frac < 0 ? -1 : 1));
    const int32_t fx = x.frac < 0 ? -x.frac : x.frac, fy = y.frac < 0 ? -y.frac : y.frac;
    p += times<F>(q - p, fx) / kOne;
    p += times<F>(r - p, fy) / kOne;
    return p;
  });
}

// The cubic spline through four samples at -1, 0, 1, 2, evaluated at t
// between the inner two.  The inner second derivatives solve the spline's
// equations m0 + 4 m1 + m2 = 6 d1, m1 + 4 m2 + m3 = 6 d2 with free ends
// (m0 = m3 = 0) by elimination; a zero second difference keeps its
// derivative at zero.  wl and wr are the derivative weights at t.
struct SplineT {
  float t, u, wl, wr;
};
inline SplineT spline_at(int32_t frac) {
  const float t = float(frac) * 0.000061035156f, u = 1.0f - t;
  return SplineT{t, u, (u * u - 1.0f) * u * 0.16666667f, (t * t - 1.0f) * t * 0.16666667f};
}
[[gnu::always_inline]] inline Lanes spline(const Lanes* s, const SplineT& w) {
  const Lanes d1 = s[0] - 2.0f * s[1] + s[2], d2 = s[1] - 2.0f * s[2] + s[3];
  const Lanes m2 = (6.0f * d2 - 1.5f * d1) * 0.266667f;
  const Lanes m1 = 1.5f * d1 - 0.25f * m2;
  const Lanes zero{};
  // The derivative where the second difference is not zero, else +0.
  const Lanes a = Lanes(IntLanes(m1) & (d1 != zero)), b = Lanes(IntLanes(m2) & (d2 != zero));
  return w.u * s[1] + w.t * s[2] + w.wl * a + w.wr * b;
}

// Pixels x0 to x0 + 3 of row y in lanes.
template <class F, class Checked>
inline void fetch_four(const Job& j, const IntLanes& fill, int32_t x0, int32_t y, Lanes* s) {
#if defined(__SSE2__)
  if constexpr (!Checked::value && F::kMax == 255 && F::kN >= 3) {
    // The four pixels' bytes in one register, each pixel's widened into the
    // lanes (of a 3-byte pixel the fourth lane takes the next one's first
    // byte: a lane never stored).
    constexpr int N = F::kN;
    const uint8_t* p = j.src + size_t(y) * j.bpl + size_t(x0) * N;
    __m128i b;
    if constexpr (N == 4) {
      b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    } else {
      int32_t tail;
      std::memcpy(&tail, p + 8, 4);
      b = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), _mm_cvtsi32_si128(tail));
    }
    s[0] = Lanes(_mm_cvtepi32_ps(widen_bytes(b)));
    s[1] = Lanes(_mm_cvtepi32_ps(widen_bytes(_mm_srli_si128(b, N))));
    s[2] = Lanes(_mm_cvtepi32_ps(widen_bytes(_mm_srli_si128(b, 2 * N))));
    s[3] = Lanes(_mm_cvtepi32_ps(widen_bytes(_mm_srli_si128(b, 3 * N))));
    return;
  }
#endif
  for (int c = 0; c < 4; ++c) s[c] = __builtin_convertvector(fetch<F, Checked>(j, fill, x0 + c, y), Lanes);
}

// The 4 x 4 samples of a one-component image from (x0, y0), by column:
// the lanes of cols[c] are rows y0 to y0 + 3.
template <class F, class Checked>
inline void fetch_columns(const Job& j, const IntLanes& fill, int32_t x0, int32_t y0, Lanes* cols) {
#if defined(__SSE2__)
  if constexpr (!Checked::value && F::kMax == 255) {
    __m128 r[4];
    for (int k = 0; k < 4; ++k) {
      int32_t four;
      std::memcpy(&four, j.src + size_t(y0 + k) * j.bpl + x0, 4);
      r[k] = _mm_cvtepi32_ps(widen_bytes(_mm_cvtsi32_si128(four)));
    }
    _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
    for (int c = 0; c < 4; ++c) cols[c] = Lanes(r[c]);
    return;
  }
#endif
  for (int c = 0; c < 4; ++c)
    for (int r = 0; r < 4; ++r) cols[c][r] = float(fetch<F, Checked>(j, fill, x0 + c, y0 + r)[0]);
}

template <class F>
void cubic(const Job& job, uint8_t* out, Axis x, Axis y) {
  static_assert(F::kN <= 4, "a component per lane");
  const Job j = job;
  interpolate_row<F, 2>(j, out, x, y, [&j](auto checked, const IntLanes& fill, Axis x, Axis y) {
    // The fraction made non-negative: the samples run from one pixel
    // before the whole part to two after it.
    int32_t x0 = x.whole - 1, fx = x.frac, y0 = y.whole - 1, fy = y.frac;
    if (fx < 0) fx += kOne, --x0;
    if (fy < 0) fy += kOne, --y0;
    const SplineT tx = spline_at(fx), ty = spline_at(fy);
    if constexpr (F::kN == 1) {
      // One component: the four rows go side by side through the lanes,
      // then each row's result, spread over the lanes, through the column.
      Lanes cols[4]{}, rows[4];
      fetch_columns<F, decltype(checked)>(j, fill, x0, y0, cols);
      const Lanes across = spline(cols, tx);
      for (int r = 0; r < 4; ++r) rows[r] = Lanes{across[r], across[r], across[r], across[r]};
      return __builtin_convertvector(spline(rows, ty) + 0.5f, IntLanes);
    }
    Lanes rows[4];
    for (int r = 0; r < 4; ++r) {
      Lanes s[4];
      fetch_four<F, decltype(checked)>(j, fill, x0, y0 + r, s);
      rows[r] = spline(s, tx);
    }
    // Rounded by adding a half and truncating; put_lanes clamps.
    return __builtin_convertvector(spline(rows, ty) + 0.5f, IntLanes);
  });
}

using RowFn = void (*)(const Job&, uint8_t*, Axis, Axis);
struct Kernels {
  RowFn nearest, linear, spline;
};
template <class F, RowFn Nearest>
constexpr Kernels interpolating() {
  return Kernels{Nearest, linear<F>, cubic<F>};
}
template <RowFn Nearest>
constexpr Kernels nearest_only() {
  return Kernels{Nearest, Nearest, Nearest};
}

// Key: depth row of the pixel-format table (0-8, 12, 16, 24, 32, 48, 64);
// 16 bits by channel order (gray sample or 5-5-5 fields).
struct KernelTable {
  Kernels by_row[15];
  Kernels gray16;
};
constexpr KernelTable make_kernels() {
  KernelTable t{};
  t.by_row[1] = nearest_only<nearest_packed<Indexed<1>>>();
  t.by_row[2] = nearest_only<nearest_packed<Indexed<2>>>();
  t.by_row[3] = nearest_only<nearest_packed<Indexed<3>>>();
  t.by_row[4] = nearest_only<nearest_packed<Indexed<4>>>();
  t.by_row[5] = nearest_only<nearest_packed<Indexed<5>>>();
  t.by_row[6] = nearest_only<nearest_packed<Indexed<6>>>();
  t.by_row[7] = nearest_only<nearest_packed<Indexed<7>>>();
  t.by_row[8] = interpolating<Bytes<1>, nearest_bytes<1>>();
  t.by_row[9] = interpolating<Sample12, nearest_packed<Gray12>>();
  t.by_row[10] = interpolating<Fields555, nearest_bytes<2>>();
  t.by_row[11] = interpolating<Bytes<3>, nearest_bytes<3>>();
  t.by_row[12] = interpolating<Bytes<4>, nearest_bytes<4>>();
  t.by_row[13] = interpolating<Words<3>, nearest_bytes<6>>();
  t.by_row[14] = interpolating<Words<4>, nearest_bytes<8>>();
  t.gray16 = interpolating<Words<1>, nearest_bytes<2>>();
  return t;
}
constexpr KernelTable kKernels = make_kernels();

RowFn row_kernel(const BitmapHandle* b, uint32_t flags) {
  const int32_t bits = b->BitsPerPixel;
  const Kernels& k = bits == 16 && b->Order == ORDER_GRAY ? kKernels.gray16 : kKernels.by_row[depth_row(bits)];
  if (flags & ROTATE_SPLINE) return k.spline;
  if (flags & ROTATE_LINEAR) return k.linear;
  return k.nearest;
}

// ---- the turn ---------------------------------------------------------------

struct Size {
  int32_t w, h;
};

// The size that holds the four turned corners.
Size resized(int32_t W, int32_t H, int32_t cs, int32_t sn) {
  const int64_t w2 = (W + 1) / 2, h2 = (H + 1) / 2;
  const int64_t xs[2] = {-w2, W - 1 - w2}, ys[2] = {h2, h2 - (H - 1)};
  int64_t left = INT64_MAX, right = INT64_MIN, top = INT64_MAX, bottom = INT64_MIN;
  for (int64_t x : xs)
    for (int64_t y : ys) {
      const int64_t tx = w2 + (cs * x - sn * y) / kOne, ty = h2 - (cs * y + sn * x) / kOne;
      left = std::min(left, tx);
      right = std::max(right, tx + 1);
      top = std::min(top, ty);
      bottom = std::max(bottom, ty + 1);
    }
  return Size{int32_t(right - left < 0 ? left - right : right - left), int32_t(bottom - top)};
}

uint64_t isqrt(uint64_t v) {
  uint64_t r = 0;
  for (uint64_t bit = uint64_t{1} << 62; bit; bit >>= 2) {
    if (v >= r + bit) {
      v -= r + bit;
      r = (r >> 1) + bit;
    } else {
      r >>= 1;
    }
  }
  return r;
}

// Dots per unit along the turned axes: the new x axis runs along (cos, sin)
// of the source, so it meets sqrt((X cos)^2 + (Y sin)^2) source dots per
// unit; the new y axis likewise with the roles exchanged.  Equal
// resolutions stay as they are; values too large for the arithmetic too.
void turn_resolution(BitmapHandle* out, int32_t X, int32_t Y, int32_t cs, int32_t sn) {
  out->XResolution = X;
  out->YResolution = Y;
  if (X == Y || X <= 0 || Y <= 0 || X > 65535 || Y > 65535) return;
  auto along = [](int64_t a, int64_t b) {
    const uint64_t s = uint64_t(a * a) + uint64_t(b * b);
    return int32_t((isqrt(s) + kHalf) / kOne);
  };
  out->XResolution = std::max(1, along(int64_t{X} * cs, int64_t{Y} * sn));
  out->YResolution = std::max(1, along(int64_t{X} * sn, int64_t{Y} * cs));
}

}  // namespace

int32_t turn_any(BitmapHandle* b, int32_t a, int32_t angle, uint32_t flags, uint32_t fill, int32_t from, int32_t to) {
  VK_TRY(check_bitmap(b));
  const int32_t bits = b->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_BITS_PER_PIXEL;
  // Views that store the image mirrored turn the other way round.
  const int32_t vp = b->ViewPerspective;
  if (vp == 1 || vp == 2 || vp == 5 || vp == 7) a = 36000 - a;
  const int32_t cs = cosine(a), sn = sine(a);
  const int32_t W = b->Width, H = b->Height;
  const Size size = (flags & ROTATE_RESIZE) ? resized(W, H, cs, sn) : Size{W, H};
  if (size.w < 1 || size.h < 1) return RESULT_BAD_PARAMETER;

  // Palette indices and looked-up gray samples are no levels to blend.
  if ((bits == 8 && V_IsGrayScaleBitmap(b) <= 0) || (b->Order == ORDER_GRAY && b->GrayLut))
    flags &= ~(ROTATE_LINEAR | ROTATE_SPLINE);
  const RowFn kernel = row_kernel(b, flags);

  op::Scratch out;
  VK_TRY(dup_shared(out, b, size.w, size.h));
  if (b->XResolution && b->YResolution) turn_resolution(out.get(), b->XResolution, b->YResolution, cs, sn);
  uint64_t fill_value = 0;
  VK_TRY(pixel_value(out.get(), fill, fill_value));

  op::CacheGuard cache(b);
  {
  BitmapLock lock_src(b);
  // The source as packed rows in memory: its own storage when it is one
  // block, else a copy read through row access (compressed rows expand).
  Buffer<uint8_t> copy;
  const uint8_t* src = static_cast<const uint8_t*>(b->Data);
  if (!flat_memory(b)) {
    copy.allocate(size_t(b->BytesPerLine) * uint32_t(H), false);
    if (!copy) return RESULT_FAIL;
    for (int32_t y = 0; y < H; ++y) {
      const int32_t got = V_GetBitmapRow(b, copy.get() + size_t(y) * b->BytesPerLine, uint32_t(y),
                                         int32_t(b->BytesPerLine));
      if (got < 0) return got;
    }
    src = copy.get();
  }
  const int32_t dbpl = int32_t(out->BytesPerLine);
  Buffer<uint8_t> row(size_t(dbpl) + 8, true);
  if (!row) return RESULT_FAIL;
  const Job job{src, b->BytesPerLine, W, H, size.w, cs, sn, fill_value};

  // Destination pixel (0, 0) sits half the new size away from the source's
  // centre, turned.
  const int64_t dw2 = size.w / 2, dh2 = size.h / 2;
  Axis x = axis_of(W / 2, dh2 * sn - dw2 * cs);
  Axis y = axis_of(H / 2, -(dw2 * sn + dh2 * cs));
  {
    BitmapLock lock_dst(out.get());
    Progress progress(size.h, false, from, to);
    VK_TRY(progress.start());
    VK_TRY(op::each_row(progress, size.h, [&](int32_t r) -> int32_t {
      kernel(job, row.get(), x, y);
      x.add(-sn);
      y.add(cs);
      const int32_t put = V_PutBitmapRow(out.get(), row.get(), uint32_t(r), dbpl);
      return put < 0 ? put : int32_t{RESULT_OK};
    }));
    VK_TRY(progress.finish());
  }
  }  // the source's lock is let go before the commit replaces its storage
  if (auto hook = reinterpret_cast<VK_ROTATEREGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(13)))) {
    // The hook turns the region the new record shares with the caller's.
    hook(out.get(), W, H, angle % 36000);
    b->Region = out->Region;
  }
  cache.dismiss();
  op::commit(out, b);
  return RESULT_OK;
}

}  // namespace vk
