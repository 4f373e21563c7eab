// mirror.cpp - one packed row mirrored in place, for every depth a bitmap
// can have.  1-, 2- and 4-bit rows are mirrored a byte at a time (bytes in
// reverse order, pixels within each byte reversed by a table) and then
// shifted back over the padding that moved to the front; the odd packings
// (3, 5, 6, 7 and 12 bits) exchange pixels from both ends; whole-byte
// pixels exchange their bytes.
#include <algorithm>
#include <array>
#include <cstring>

#include "geometry.h"
#include "pixel_format.h"
#include "platform.h"

#if defined(__SSE2__)
#include <tmmintrin.h>
#endif

namespace vk {
namespace {

// Key: a byte; value: the byte with its 8 / B pixels in reverse order.
template <int B>
constexpr std::array<uint8_t, 256> make_reverse_table() {
  std::array<uint8_t, 256> t{};
  for (unsigned v = 0; v < 256; ++v) {
    unsigned out = 0;
    for (int i = 0; i < 8 / B; ++i) out |= ((v >> (i * B)) & ((1u << B) - 1)) << (8 - B - i * B);
    t[v] = static_cast<uint8_t>(out);
  }
  return t;
}
template <int B>
constexpr std::array<uint8_t, 256> kReverse = make_reverse_table<B>();
static_assert(kReverse<1>[0x01] == 0x80 && kReverse<2>[0x1B] == 0xE4 && kReverse<4>[0x12] == 0x21);

template <int B>
void mirror_aligned(uint8_t* row, uint32_t width) {
  const uint64_t bits = uint64_t{width} * B;
  const size_t n = static_cast<size_t>((bits + 7) / 8);
  const unsigned tail = static_cast<unsigned>(n * 8 - bits);  // padding bits after the last pixel
  const uint8_t keep_mask = static_cast<uint8_t>((1u << tail) - 1);
  const uint8_t keep = row[n - 1] & keep_mask;
  for (size_t i = 0, j = n - 1; i < j; ++i, --j) {
    const uint8_t a = row[i];
    row[i] = kReverse<B>[row[j]];
    row[j] = kReverse<B>[a];
  }
  if (n & 1) row[n / 2] = kReverse<B>[row[n / 2]];
  if (tail) {
    for (size_t i = 0; i + 1 < n; ++i) row[i] = static_cast<uint8_t>((row[i] << tail) | (row[i + 1] >> (8 - tail)));
    row[n - 1] = static_cast<uint8_t>(row[n - 1] << tail);
  }
  row[n - 1] = static_cast<uint8_t>((row[n - 1] & ~keep_mask) | keep);
}

template <int B>
void mirror_odd(uint8_t* row, uint32_t width) {
  for (uint32_t i = 0, j = width - 1; i < j; ++i, --j) {
    const uint32_t a = packed_pixel_tight<B>(row, i);
    put_packed_pixel<B>(row, i, packed_pixel_tight<B>(row, j));
    put_packed_pixel<B>(row, j, a);
  }
}

void mirror_12(uint8_t* row, uint32_t width) {
  for (uint32_t i = 0, j = width - 1; i < j; ++i, --j) {
    const uint32_t a = gray12_pixel(row, i);
    put_gray12_pixel(row, i, gray12_pixel(row, j));
    put_gray12_pixel(row, j, a);
  }
}

// dst pixel i = src pixel n - 1 - i (N-byte pixels, no overlap).  The
// vector forms reverse 16 bytes at a time; 3-byte pixels go four at a time
// through a byte shuffle, 16-byte loads and stores kept inside both ranges.
template <int N>
void reverse_copy_plain(uint8_t* dst, const uint8_t* src, uint32_t n, uint32_t i) {
  for (; i < n; ++i) std::memcpy(dst + size_t(i) * N, src + size_t(n - 1 - i) * N, N);
}

#if defined(__SSE2__)
template <int N>
inline __m128i reverse_lanes(__m128i x) {
  x = _mm_shuffle_epi32(x, N == 8 ? 0x4E : 0x1B);
  if constexpr (N <= 2) x = _mm_shufflehi_epi16(_mm_shufflelo_epi16(x, 0xB1), 0xB1);
  if constexpr (N == 1) x = _mm_or_si128(_mm_slli_epi16(x, 8), _mm_srli_epi16(x, 8));
  return x;
}

template <int N>
uint32_t reverse_copy_vector(uint8_t* dst, const uint8_t* src, uint32_t n) {
  constexpr uint32_t L = 16 / N;
  uint32_t i = 0;
  for (; i + L <= n; i += L) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + size_t(n - L - i) * N));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + size_t(i) * N), reverse_lanes<N>(x));
  }
  return i;
}

// The four pixels sit in bytes 4..15 of the load (which starts 4 bytes
// before them); the store writes 4 bytes past them, which the next step
// overwrites.
__attribute__((target("ssse3"))) uint32_t reverse_copy_3(uint8_t* dst, const uint8_t* src, uint32_t n) {
  const __m128i order = _mm_setr_epi8(13, 14, 15, 10, 11, 12, 7, 8, 9, 4, 5, 6, -1, -1, -1, -1);
  uint32_t i = 0;
  for (; i + 6 <= n; i += 4) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + size_t(n - 4 - i) * 3 - 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + size_t(i) * 3), _mm_shuffle_epi8(x, order));
  }
  return i;
}
#endif

template <int N>
void reverse_copy(uint8_t* dst, const uint8_t* src, uint32_t n) {
  uint32_t i = 0;
#if defined(__SSE2__)
  static const plat::Simd simd = plat::simd_level();
  if constexpr (N == 3) {
    // Every processor with AVX2 has the byte shuffle.
    if (simd == plat::Simd::avx2) i = reverse_copy_3(dst, src, n);
  } else if constexpr (16 % N == 0) {
    if (simd != plat::Simd::generic) i = reverse_copy_vector<N>(dst, src, n);
  }
#endif
  reverse_copy_plain<N>(dst, src, n, i);
}

// Pixel i of row a and pixel width - 1 - i of row b exchanged for every i;
// with a == b, for i < width / 2, which mirrors the row.  Chunks of the two
// ranges go through a buffer on the stack, each copied reversed.
template <int N>
void exchange_bytes(uint8_t* a, uint8_t* b, uint32_t width) {
  constexpr uint32_t kChunk = 1536 / N;
  uint8_t t[kChunk * N];
  const uint32_t end = a == b ? width / 2 : width;
  for (uint32_t i = 0; i < end; i += kChunk) {
    const uint32_t n = std::min(kChunk, end - i);
    uint8_t* pa = a + size_t(i) * N;
    uint8_t* pb = b + size_t(width - i - n) * N;
    std::memcpy(t, pa, size_t(n) * N);
    reverse_copy<N>(pa, pb, n);
    reverse_copy<N>(pb, t, n);
  }
}

template <int N>
void mirror_bytes(uint8_t* row, uint32_t width) {
  exchange_bytes<N>(row, row, width);
}

template <int B>
constexpr MirrorFn mirror_of() {
  if constexpr (B == 12) return mirror_12;
  else if constexpr (B % 8 == 0) return mirror_bytes<B / 8>;
  else if constexpr (B == 1 || B == 2 || B == 4) return mirror_aligned<B>;
  else return mirror_odd<B>;
}
constexpr auto kMirror = by_depth<MirrorFn>([]<int B>() { return mirror_of<B>(); });

// Packed and 12-bit rows: both mirrored, then their bytes exchanged.
template <int B>
void exchange_mirrored(uint8_t* a, uint8_t* b, uint32_t width) {
  mirror_of<B>()(a, width);
  mirror_of<B>()(b, width);
  std::swap_ranges(a, a + (uint64_t{width} * B + 7) / 8, b);
}

template <int B>
constexpr ExchangeFn exchange_of() {
  if constexpr (B % 8 == 0 && B != 0) return exchange_bytes<B / 8>;
  else return exchange_mirrored<B>;
}
constexpr auto kExchange = by_depth<ExchangeFn>([]<int B>() { return exchange_of<B>(); });

}  // namespace

MirrorFn mirror_kernel(int32_t bits) { return bits >= 0 && bits <= 64 ? kMirror[bits] : nullptr; }
ExchangeFn exchange_kernel(int32_t bits) { return bits >= 0 && bits <= 64 ? kExchange[bits] : nullptr; }

}  // namespace vk

extern "C" VK_API int32_t VK_CALL V_MirrorLine(void* row, int32_t width, int32_t bitsPerPixel) {
  return vk::api_call([&]() -> int32_t {
    if (!row || width < 0) return RESULT_BAD_PARAMETER;
    const vk::MirrorFn mirror = vk::mirror_kernel(bitsPerPixel);
    if (!mirror) return RESULT_BAD_BITS_PER_PIXEL;
    if (width > 1) mirror(static_cast<uint8_t*>(row), static_cast<uint32_t>(width));
    return RESULT_OK;
  });
}
