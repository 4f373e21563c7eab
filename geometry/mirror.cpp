// mirror.cpp - one packed row mirrored in place, for every depth a bitmap
// can have.  1-, 2- and 4-bit rows are mirrored a byte at a time (bytes in
// reverse order, pixels within each byte reversed by a table) and then
// shifted back over the padding that moved to the front; the odd packings
// (3, 5, 6, 7 and 12 bits) exchange pixels from both ends; whole-byte
// pixels exchange their bytes.
#include <array>
#include <cstring>

#include "geometry.h"
#include "pixel_format.h"

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

template <int N>
void mirror_bytes(uint8_t* row, uint32_t width) {
  uint8_t* a = row;
  uint8_t* b = row + size_t{width - 1} * N;
  for (; a < b; a += N, b -= N) {
    uint8_t t[N];
    std::memcpy(t, a, N);
    std::memcpy(a, b, N);
    std::memcpy(b, t, N);
  }
}

// Key: bits per pixel, 0..64.
constexpr std::array<MirrorFn, 65> make_mirror_table() {
  std::array<MirrorFn, 65> t{};
  t[1] = mirror_aligned<1>;
  t[2] = mirror_aligned<2>;
  t[3] = mirror_odd<3>;
  t[4] = mirror_aligned<4>;
  t[5] = mirror_odd<5>;
  t[6] = mirror_odd<6>;
  t[7] = mirror_odd<7>;
  t[8] = mirror_bytes<1>;
  t[12] = mirror_12;
  t[16] = mirror_bytes<2>;
  t[24] = mirror_bytes<3>;
  t[32] = mirror_bytes<4>;
  t[48] = mirror_bytes<6>;
  t[64] = mirror_bytes<8>;
  return t;
}
constexpr std::array<MirrorFn, 65> kMirror = make_mirror_table();

}  // namespace

MirrorFn mirror_kernel(int32_t bits) { return bits >= 0 && bits <= 64 ? kMirror[bits] : nullptr; }

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
