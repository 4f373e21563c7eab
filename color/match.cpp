// match.cpp - nearest-colour search and the index map that buffer conversion
// uses between two palettes.
#include "match.h"

#include <climits>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#define VK_AVX2_DISPATCH 1
#endif

#include "core.h"
#include "platform.h"

namespace vk {
namespace {

// Channel-order code of a colour: bit 2 blue > red; bit 1 green below both
// red and blue; bit 0 green above both (exclusive with bit 1).  Equal
// distances are broken in favour of a later entry only when its code matches
// the target's, so ties keep the hue ordering of the target.
inline uint32_t order_code(int32_t r, int32_t g, int32_t b) {
  uint32_t code = (b > r) ? 4u : 0u;
  const int32_t lo = r < b ? r : b;
  const int32_t hi = r < b ? b : r;
  if (g < lo)
    code |= 2u;
  else if (g > hi)
    code |= 1u;
  return code;
}

inline bool is_black(const RGBQUAD& e) { return (e.rgbRed | e.rgbGreen | e.rgbBlue) == 0; }
inline bool is_white(const RGBQUAD& e) { return (e.rgbRed & e.rgbGreen & e.rgbBlue) == 255; }

}  // namespace

uint32_t find_palette_index(const RGBQUAD* palette, uint32_t colors, int32_t red, int32_t green, int32_t blue) {
  if (!palette) return 0;
  // An empty palette has no entry to compare against, so the black/white
  // shortcuts (which look at entries 0 and colors - 1) are not tried.
  if (colors == 0) return 0xFFFFFFFFu;
  const uint32_t last = colors - 1;
  if ((red | green | blue) == 0) {
    if (is_black(palette[0])) return 0;
    if (is_black(palette[last])) return last;
  } else if ((red & green & blue) == 255) {
    // White prefers the last entry, black the first.
    if (is_white(palette[last])) return last;
    if (is_white(palette[0])) return 0;
  }
  const uint32_t target = order_code(red, green, blue);
  uint32_t best = 0xFFFFFFFFu;
  uint32_t best_index = 0xFFFFFFFFu;
  for (uint32_t i = 0; i < colors; ++i) {
    const RGBQUAD& e = palette[i];
    const uint32_t db = static_cast<uint32_t>(e.rgbBlue - blue);
    const uint32_t dg = static_cast<uint32_t>(e.rgbGreen - green);
    const uint32_t dr = static_cast<uint32_t>(e.rgbRed - red);
    const uint32_t d = db * db + dg * dg + dr * dr;  // unsigned 32-bit, wraps like the reference arithmetic
    if (d < best) {
      best = d;
      best_index = i;
    } else if (d == best && order_code(e.rgbRed, e.rgbGreen, e.rgbBlue) == target) {
      best_index = i;
    }
    if (best == 0) break;  // the first exact match wins
  }
  return best_index;
}

void PaletteMatcher::prepare(const RGBQUAD* palette, uint32_t colors) {
  palette_ = palette;
  colors_ = colors > 256 ? 256 : colors;
  padded_ = (colors_ + 7) & ~7u;
  for (uint32_t i = 0; i < padded_; ++i) {
    // Padding entries sit far outside the cube: their distance (below 2^30,
    // so no int32 overflow) can never be the minimum.
    const bool real = i < colors_;
    rg_[2 * i] = real ? int16_t(palette[i].rgbRed) : int16_t(16000);
    rg_[2 * i + 1] = real ? int16_t(palette[i].rgbGreen) : int16_t(16000);
    b0_[2 * i] = real ? int16_t(palette[i].rgbBlue) : int16_t(16000);
    b0_[2 * i + 1] = 0;
    code_[i] = real ? uint8_t(order_code(palette[i].rgbRed, palette[i].rgbGreen, palette[i].rgbBlue)) : 0xFF;
  }
}

// With m the smallest distance and i0 the first entry at m, the sequential
// search ends on i0 when m is 0 (first exact match) and otherwise on the last
// entry at distance m whose order code equals the target's, or i0 if none.
uint32_t PaletteMatcher::find(uint32_t red, uint32_t green, uint32_t blue) const {
  static const plat::Simd simd = plat::simd_level();
#if defined(VK_AVX2_DISPATCH)
  if (simd == plat::Simd::avx2) {
    uint32_t answer;
    if (shortcut(red, green, blue, answer)) return answer;
    return search_avx2(red, green, blue);
  }
#endif
  if (simd == plat::Simd::generic)
    return find_palette_index(palette_, colors_, int32_t(red), int32_t(green), int32_t(blue));
  return find_baseline(red, green, blue);
}

// Empty palette, then the black and white shortcuts of the search.
bool PaletteMatcher::shortcut(uint32_t red, uint32_t green, uint32_t blue, uint32_t& answer) const {
  answer = 0xFFFFFFFFu;
  if (colors_ == 0) return true;
  const uint32_t last = colors_ - 1;
  if ((red | green | blue) == 0) {
    if (is_black(palette_[0])) return answer = 0, true;
    if (is_black(palette_[last])) return answer = last, true;
  } else if ((red & green & blue) == 255) {
    if (is_white(palette_[last])) return answer = last, true;
    if (is_white(palette_[0])) return answer = 0, true;
  }
  return false;
}

uint32_t PaletteMatcher::find_baseline(uint32_t red, uint32_t green, uint32_t blue) const {
#if defined(__SSE2__)
  uint32_t answer;
  if (shortcut(red, green, blue, answer)) return answer;
  return search_sse2(red, green, blue);
#else
  return find_palette_index(palette_, colors_, int32_t(red), int32_t(green), int32_t(blue));
#endif
}

#if defined(__SSE2__)
uint32_t PaletteMatcher::search_sse2(uint32_t red, uint32_t green, uint32_t blue) const {
  alignas(16) int32_t d[256];
  const __m128i t_rg = _mm_set1_epi32(int32_t(red | (green << 16)));
  const __m128i t_b = _mm_set1_epi32(int32_t(blue));
  __m128i vmin = _mm_set1_epi32(INT_MAX);
  for (uint32_t k = 0; k < padded_; k += 4) {
    const __m128i a = _mm_sub_epi16(_mm_load_si128(reinterpret_cast<const __m128i*>(rg_ + 2 * k)), t_rg);
    const __m128i c = _mm_sub_epi16(_mm_load_si128(reinterpret_cast<const __m128i*>(b0_ + 2 * k)), t_b);
    const __m128i s = _mm_add_epi32(_mm_madd_epi16(a, a), _mm_madd_epi16(c, c));
    _mm_store_si128(reinterpret_cast<__m128i*>(d + k), s);
    const __m128i lt = _mm_cmplt_epi32(s, vmin);
    vmin = _mm_or_si128(_mm_and_si128(lt, s), _mm_andnot_si128(lt, vmin));
  }
  alignas(16) int32_t lanes[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(lanes), vmin);
  int32_t m = lanes[0];
  for (int k = 1; k < 4; ++k) m = lanes[k] < m ? lanes[k] : m;
  const __m128i vm = _mm_set1_epi32(m);
  uint32_t i0 = 0;
  for (uint32_t k = 0; k < padded_; k += 4) {
    const int mask = _mm_movemask_ps(
        _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(d + k)), vm)));
    if (mask) {
      i0 = k + uint32_t(__builtin_ctz(unsigned(mask)));
      break;
    }
  }
  if (m == 0) return i0;
  const uint8_t target = uint8_t(order_code(int32_t(red), int32_t(green), int32_t(blue)));
  for (uint32_t k = padded_; k > (i0 & ~3u);) {
    k -= 4;
    int mask = _mm_movemask_ps(
        _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(d + k)), vm)));
    while (mask) {
      const int bit = 31 - __builtin_clz(unsigned(mask));
      const uint32_t idx = k + uint32_t(bit);
      if (idx <= i0) return i0;
      if (code_[idx] == target) return idx;
      mask &= ~(1 << bit);
    }
  }
  return i0;
}
#endif

#if defined(VK_AVX2_DISPATCH)
// The distance pass and both scans of find() eight entries at a time.
__attribute__((target("avx2"), aligned(64))) uint32_t PaletteMatcher::search_avx2(uint32_t red, uint32_t green,
                                                                      uint32_t blue) const {
  alignas(32) int32_t d[256];
  const __m256i t_rg = _mm256_set1_epi32(int32_t(red | (green << 16)));
  const __m256i t_b = _mm256_set1_epi32(int32_t(blue));
  __m256i vmin = _mm256_set1_epi32(INT_MAX);
  for (uint32_t k = 0; k < padded_; k += 8) {
    const __m256i a = _mm256_sub_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(rg_ + 2 * k)), t_rg);
    const __m256i c = _mm256_sub_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(b0_ + 2 * k)), t_b);
    const __m256i s = _mm256_add_epi32(_mm256_madd_epi16(a, a), _mm256_madd_epi16(c, c));
    _mm256_store_si256(reinterpret_cast<__m256i*>(d + k), s);
    vmin = _mm256_min_epi32(vmin, s);
  }
  __m128i m4 = _mm_min_epi32(_mm256_castsi256_si128(vmin), _mm256_extracti128_si256(vmin, 1));
  m4 = _mm_min_epi32(m4, _mm_shuffle_epi32(m4, 0x4E));
  m4 = _mm_min_epi32(m4, _mm_shuffle_epi32(m4, 0xB1));
  const int32_t m = _mm_cvtsi128_si32(m4);
  const __m256i vm = _mm256_set1_epi32(m);
  uint32_t i0 = 0;
  for (uint32_t k = 0; k < padded_; k += 8) {
    const int mask = _mm256_movemask_ps(
        _mm256_castsi256_ps(_mm256_cmpeq_epi32(_mm256_load_si256(reinterpret_cast<const __m256i*>(d + k)), vm)));
    if (mask) {
      i0 = k + uint32_t(__builtin_ctz(unsigned(mask)));
      break;
    }
  }
  if (m == 0) return i0;
  const uint8_t target = uint8_t(order_code(int32_t(red), int32_t(green), int32_t(blue)));
  for (uint32_t k = padded_; k > (i0 & ~7u);) {
    k -= 8;
    int mask = _mm256_movemask_ps(
        _mm256_castsi256_ps(_mm256_cmpeq_epi32(_mm256_load_si256(reinterpret_cast<const __m256i*>(d + k)), vm)));
    while (mask) {
      const int bit = 31 - __builtin_clz(unsigned(mask));
      const uint32_t idx = k + uint32_t(bit);
      if (idx <= i0) return i0;
      if (code_[idx] == target) return idx;
      mask &= ~(1 << bit);
    }
  }
  return i0;
}
#endif

int build_palette_map(const RGBQUAD* src, uint32_t srcColors, const RGBQUAD* dst, uint32_t dstColors,
                      uint8_t map[256]) {
  if (srcColors > 256) srcColors = 256;
  if (dstColors > 256) dstColors = 256;
  if (!src && !dst) return 1;
  uint32_t filled = 0;
  if (src && dst) {
    if (srcColors <= dstColors && std::memcmp(src, dst, srcColors * sizeof(RGBQUAD)) == 0) {
      for (uint32_t i = 0; i < srcColors; ++i) map[i] = static_cast<uint8_t>(i);
      return 1;
    }
    PaletteMatcher m;
    m.prepare(dst, dstColors);
    for (uint32_t i = 0; i < srcColors; ++i) map[i] = static_cast<uint8_t>(m.find(src[i].rgbRed, src[i].rgbGreen, src[i].rgbBlue));
    filled = srcColors;
  } else if (src) {
    // Gray destination: the gray level of each source entry.
    for (uint32_t i = 0; i < srcColors; ++i)
      map[i] = static_cast<uint8_t>(gray_level(src[i].rgbRed, src[i].rgbGreen, src[i].rgbBlue));
    filled = srcColors;
  } else {
    // Gray source: the nearest destination entry of each level.
    PaletteMatcher m;
    m.prepare(dst, dstColors);
    for (uint32_t v = 0; v < 256; ++v) map[v] = static_cast<uint8_t>(m.find(v, v, v));
    filled = 256;
  }
  for (uint32_t i = 0; i < filled; ++i)
    if (map[i] != i) return 0;
  return 1;
}

}  // namespace vk
