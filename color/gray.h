// gray.h - small shared pieces of gray handling: the gray level of a colour,
// 5-bit field widening and the bit range of a gray sample.
#pragma once

#include <cstdint>

#include "convert.h"
#include "pixel_format.h"

namespace vk::gray {



// The significant part of a gray sample: value = (raw >> shift) & mask, with
// mask = 2^count - 1 (the bit-range rule of row conversion).  A range that
// names no bit at all falls back to the whole sample.
struct Range {
  int32_t count;
  uint32_t mask;
  int32_t shift;
};

inline Range range(int32_t bits, int32_t max_bits, int32_t low_bit, int32_t high_bit) {
  GrayRange r;
  if (!gray_range(bits, max_bits, low_bit, high_bit, r) || r.count > 16 || r.shift < 0 || r.shift > 16)
    return Range{bits, bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1u, 0};
  return Range{r.count, r.mask, r.shift};
}

// An 8-bit gray level as an n-bit gray value (before the range's shift).
constexpr uint32_t from_level(uint32_t lvl, int32_t n) {
  return n > 8 ? lvl * ((1u << n) - 1u) / 255u : lvl >> (8 - n);
}

}  // namespace vk::gray
