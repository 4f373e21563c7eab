// The shared pixel-format rules: the gray bit-range rule with its edge cases
// (every reader derives its count, mask and shift from it), the 5-bit
// widening and the 16-bit sample order.
#include <gtest/gtest.h>

#include "pixel_format.h"

namespace {

TEST(PixelFormat, BitRangeRule) {
  struct Case {
    int32_t bits, max_bits, low, high;
    int64_t count, shift;
  };
  const Case cases[] = {
      {16, 16, -1, -1, 16, 0},   // unset: the whole sample
      {16, 8, -1, -1, 8, 8},     // capped: the top bits
      {12, 12, 0, 11, 12, 0},    // the whole value named
      {16, 16, 4, 11, 8, 4},     // an inner range
      {16, 8, 2, 15, 8, 8},      // an inner range wider than the cap
      {16, 16, 3, 3, 1, 3},      // one bit
      {16, 16, 9, 4, -4, 9},     // high below low: no bit (shift of the raw count)
      {8, 8, 5, -1, 3, 5},       // negative high: bits - 1
      {16, 16, -7, 3, 4, 0},     // negative low counts from 0
      {16, 32, 0, 40, 32, 9},    // past the sample: the rule does not clip high
  };
  for (const Case& c : cases) {
    const vk::BitRange r = vk::bit_range(c.bits, c.max_bits, c.low, c.high);
    EXPECT_EQ(r.count, c.count) << c.bits << " " << c.max_bits << " " << c.low << " " << c.high;
    EXPECT_EQ(r.shift_for(r.count), c.shift) << c.bits << " " << c.max_bits << " " << c.low << " " << c.high;
  }
  // Masks and shifts at their limits.
  EXPECT_EQ(vk::low_bits(-3), 0u);
  EXPECT_EQ(vk::low_bits(0), 0u);
  EXPECT_EQ(vk::low_bits(5), 31u);
  EXPECT_EQ(vk::low_bits(32), 0xFFFFFFFFu);
  EXPECT_EQ(vk::low_bits(40), 0xFFFFFFFFu);
  EXPECT_EQ(vk::clamp_shift(-2), 0u);
  EXPECT_EQ(vk::clamp_shift(40), 31u);
}

TEST(PixelFormat, FieldWideningAndSampleOrder) {
  EXPECT_EQ(vk::widen5(0), 0);
  EXPECT_EQ(vk::widen5(31), 255);
  EXPECT_EQ(vk::widen5(16), 132);
  const uint8_t sample[2] = {0x34, 0x12};
  EXPECT_EQ(vk::le16(sample), 0x1234u);
  EXPECT_EQ(vk::gray_level(255, 255, 255), 255u);
  EXPECT_EQ(vk::gray_level(0, 255, 0), 159u);  // truncating
}

}  // namespace
