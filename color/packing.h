// packing.h - reading one pixel of 1 to 8 bits from a packed row.
//
// Rows of 1-7 bits are one continuous bit stream, most significant bit
// first.  For 3, 5, 6 and 7 bits a pixel may straddle two bytes; the two
// bytes are then read as one big-endian 16-bit value, so the caller's row
// buffer needs one byte of slack after the last pixel.
#pragma once

#include <cstdint>

namespace vk {

template <int B>
inline uint32_t packed_pixel(const uint8_t* row, uint32_t x) {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
  if constexpr (B == 8) {
    return row[x];
  } else if constexpr (B == 1 || B == 2 || B == 4) {
    const uint32_t bit = x * B;
    return (row[bit >> 3] >> (8 - B - (bit & 7))) & ((1u << B) - 1);
  } else {
    const uint32_t bit = x * B;
    const uint32_t word = (static_cast<uint32_t>(row[bit >> 3]) << 8) | row[(bit >> 3) + 1];
    return (word >> (16 - B - (bit & 7))) & ((1u << B) - 1);
  }
}

}  // namespace vk
