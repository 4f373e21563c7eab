// alpha.h - the alpha channel carried in the pixel: bit 15 of a 5-5-5
// pixel, the fourth byte of a 32-bit pixel, the fourth 16-bit sample of a
// 64-bit pixel.  The row kernels that write it live here with the one that
// reads it, so both directions agree on where it sits.
#pragma once

#include <cstdint>

namespace vk::alpha {

// Writes `count` alpha values of `alpha_bits` (1, 8 or 16) into the first
// `count` pixels of a row of `bits` (16, 32 or 64).  Pairs: 16 with 1 or 8
// (bit 15 set for a set bit or a value of 128 and more), 32 with 8, 64 with
// 16; any other pair gives null.
using SetFn = void (*)(uint8_t* pixels, const uint8_t* alpha, uint32_t count);
SetFn set_kernel(int32_t bits, int32_t alpha_bits);

}  // namespace vk::alpha
