// pixel_format.h - the pieces every pixel reader shares: the packed-pixel
// read of 1 to 8 bits, the 16-bit little-endian sample, the widening of a
// 5-bit field, the gray level of a colour, the gray bit-range rule and the
// size of the 5-5-5 colour cube.  Conversion, pixel access, grayscale,
// dithering, colour count and the optimiser read pixels through these, so a
// rule changes in one place.
#pragma once

#include <cstdint>

namespace vk {

// Cells of the 5-5-5 colour cube: histograms, user match tables and the
// optimiser's tables all have one entry per cell.
inline constexpr uint32_t kColorCells = 32768;

// A 16-bit sample as stored in rows: low byte first.
inline constexpr uint32_t le16(const uint8_t* p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8); }

// A 5-bit field as an 8-bit channel (the top bits repeat in the low ones).
inline constexpr uint8_t widen5(uint32_t field) { return uint8_t((field << 3) | (field >> 2)); }

// Gray level of an 8-bit-per-channel colour: (5 g + 2 r + b + 4) / 8.
inline constexpr uint32_t gray_level(uint32_t red, uint32_t green, uint32_t blue) {
  return (5u * green + 2u * red + blue + 4u) >> 3;
}

// The gray bit-range rule: a sample's significant bits are the top `count`
// of low .. high, where low = max(lowBit, 0), high = highBit, or bits - 1
// when highBit is negative, and count = min(high - low + 1, maxBits).  A
// value is read as (raw >> shift) & mask with shift = high - count + 1.
// Each reader then applies its own limits to count (see shift_for).
struct BitRange {
  int64_t high;
  int64_t count;  // may be 0 or negative: the range names no bit
  // The shift for a count the caller settled on.
  constexpr int64_t shift_for(int64_t n) const { return high - n + 1; }
};
inline constexpr BitRange bit_range(int32_t bits, int32_t max_bits, int32_t low_bit, int32_t high_bit) {
  const int64_t low = low_bit > 0 ? low_bit : 0;
  const int64_t high = high_bit >= 0 ? high_bit : int64_t(bits) - 1;
  const int64_t count = high - low + 1;
  return BitRange{high, count > max_bits ? max_bits : count};
}
// The mask of `count` low bits (0 for none, all for 32 or more).
inline constexpr uint32_t low_bits(int64_t count) {
  return count <= 0 ? 0u : count >= 32 ? 0xFFFFFFFFu : (1u << count) - 1u;
}
// A shift that fits a 32-bit word.
inline constexpr uint32_t clamp_shift(int64_t shift) { return uint32_t(shift < 0 ? 0 : shift > 31 ? 31 : shift); }

// One pixel of 1 to 8 bits from a packed row.  Rows of 1-7 bits are one
// continuous bit stream, most significant bit first.  For 3, 5, 6 and 7 bits
// a pixel may straddle two bytes; the two bytes are then read as one
// big-endian 16-bit value, so the row buffer needs one byte of slack after
// the last pixel.
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

// The same pixel read touching only the bytes the pixel occupies (no slack
// after the row), for rows the caller hands in without room to spare.
template <int B>
inline uint32_t packed_pixel_tight(const uint8_t* row, uint32_t x) {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
  const uint32_t bit = x * B, at = bit & 7;
  if (at + B <= 8) return (row[bit >> 3] >> (8 - B - at)) & ((1u << B) - 1);
  const uint32_t word = (static_cast<uint32_t>(row[bit >> 3]) << 8) | row[(bit >> 3) + 1];
  return (word >> (16 - B - at)) & ((1u << B) - 1);
}

// Writes one pixel of 1 to 8 bits into a packed row; the neighbouring bits
// are kept and no byte beyond the pixel's own is touched.
template <int B>
inline void put_packed_pixel(uint8_t* row, uint32_t x, uint32_t v) {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
  const uint32_t bit = x * B, at = bit & 7, mask = (1u << B) - 1;
  v &= mask;
  uint8_t* p = row + (bit >> 3);
  if (at + B <= 8) {
    const uint32_t shift = 8 - B - at;
    *p = static_cast<uint8_t>((*p & ~(mask << shift)) | (v << shift));
    return;
  }
  const uint32_t shift = 16 - B - at;
  const uint32_t word = ((static_cast<uint32_t>(p[0]) << 8) | p[1]) & ~(mask << shift);
  const uint32_t out = word | (v << shift);
  p[0] = static_cast<uint8_t>(out >> 8);
  p[1] = static_cast<uint8_t>(out);
}

// 12-bit gray: pixel 2m is the low 12 bits of the little-endian word at byte
// 3m, pixel 2m+1 the high 12 bits of the word at byte 3m+1.
inline uint32_t gray12_pixel(const uint8_t* row, uint32_t x) {
  const uint8_t* p = row + (x >> 1) * 3;
  return (x & 1) ? (uint32_t(p[1]) >> 4) | (uint32_t(p[2]) << 4) : uint32_t(p[0]) | ((uint32_t(p[1]) & 0x0F) << 8);
}
// Writing one keeps the other pixel's nibble.
inline void put_gray12_pixel(uint8_t* row, uint32_t x, uint32_t v) {
  uint8_t* p = row + (x >> 1) * 3;
  if (x & 1) {
    p[1] = static_cast<uint8_t>((p[1] & 0x0F) | ((v & 0x0F) << 4));
    p[2] = static_cast<uint8_t>(v >> 4);
  } else {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>((p[1] & 0xF0) | ((v >> 8) & 0x0F));
  }
}

}  // namespace vk
