// pixel.h - a colour value as the stored value of one pixel of a bitmap,
// the conversion V_PutPixelColor makes, for operations that fill or pad
// with a colour (fill, turns, shear).
#pragma once

#include <cstdint>

#include "core.h"

namespace vk {

// The pixel value `color` stores in b, in the form a packed row holds it:
// 1-8 bits the palette index (the nearest entry of the bitmap's palette, or
// the index of the index form), 12 and 16-bit gray the finished sample word
// (gray range and lookup table applied), colour depths the pixel's bytes,
// byte i of the row in bits 8i..8i+7 (16-bit channels take the byte twice;
// the fourth channel of 32 and 64 bits is 0).  RESULT_BAD_PARAMETER for the
// index form on a depth without palette, RESULT_BAD_BITS_PER_PIXEL for
// another depth.
int32_t pixel_value(BitmapHandle* b, uint32_t color, uint64_t& value);

// Writes `value` (as pixel_value gives it) into pixels x0 .. x0 + n - 1 of a
// packed row of the given depth; the bits of other pixels are kept.
void fill_pixels(uint8_t* row, int32_t bits, uint32_t x0, uint32_t n, uint64_t value);

}  // namespace vk
