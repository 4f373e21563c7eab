// convert.h - row conversion between pixel formats (internal entry points).
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk {

// A gray bit range: the top `count` bits of low..high, i.e. a value is read
// as (raw >> shift) & mask and written as value << shift.
struct GrayRange {
  int32_t count = 0;
  uint32_t mask = 0;
  int32_t shift = 0;
};

// The bit-range rule: low = max(lowBit, 0); high = highBit if >= 0, else
// bits - 1; count = min(high - low + 1, maxBits); shift = high - count + 1;
// mask = 2^count - 1.  False (range untouched) when count comes out below 1.
bool gray_range(int32_t bits, int32_t maxBits, int32_t lowBit, int32_t highBit, GrayRange& out);

// V_ConvertBufferExt without the exception barrier.
int32_t convert_buffer(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits, int32_t srcOrder,
                       int32_t dstOrder, const RGBQUAD* srcPalette, const RGBQUAD* dstPalette, uint32_t flags,
                       int32_t lowBit, int32_t highBit);

// Bytes an in-place conversion needs (V_CalcConvertSize).
uint32_t convert_size(int32_t width1, int32_t bits1, int32_t width2, int32_t bits2);

// True for the depths row conversion knows: 0-8, 12, 16, 24, 32, 48, 64.
inline bool convertible_depth(int32_t bits) {
  return (bits >= 0 && bits <= 8) || bits == 12 || bits == 16 || bits == 24 || bits == 32 || bits == 48 ||
         bits == 64;
}

}  // namespace vk
