// gray.h - small shared pieces of gray handling: the gray level of a colour,
// 5-bit field widening and the bit range of a gray sample.
#pragma once

#include <cstdint>

namespace vk::gray {

// Gray level of an 8-bit-per-channel colour, truncating.
constexpr uint32_t level(uint32_t red, uint32_t green, uint32_t blue) {
  return (5u * green + 2u * red + blue + 4u) >> 3;
}

// 5-bit field to 8-bit channel.
constexpr uint32_t widen5(uint32_t field) { return (field << 3) | (field >> 2); }

// The significant part of a gray sample: value = (raw >> shift) & mask, with
// mask = 2^count - 1.  The range keeps the top `count` bits of low..high.
struct Range {
  int32_t count;
  uint32_t mask;
  int32_t shift;
};

// low < 0 counts as 0, high < 0 as bits - 1; count is capped at max_bits.
constexpr Range range(int32_t bits, int32_t max_bits, int32_t low_bit, int32_t high_bit) {
  const int32_t low = low_bit < 0 ? 0 : low_bit;
  const int32_t high = high_bit >= 0 ? high_bit : bits - 1;
  int32_t count = high - low + 1;
  if (count > max_bits) count = max_bits;
  if (count < 1) count = 1;  // an inverted range still names one bit
  if (count > 31) count = 31;
  const int32_t shift = high - count + 1;
  return Range{count, (1u << count) - 1u, shift < 0 ? 0 : shift};
}

// An 8-bit gray level as an n-bit gray value (before the range's shift).
constexpr uint32_t from_level(uint32_t lvl, int32_t n) {
  return n > 8 ? lvl * ((1u << n) - 1u) / 255u : lvl >> (8 - n);
}

}  // namespace vk::gray
