// palette_tables.h - the constant palettes every colour path shares: the fixed
// palette of each depth 1..8, the 256-entry gray ramp and the 6x6x6 colour
// cube.  All tables are read-only and may be used from any thread.
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk {

// Fixed palette of `bits` (1..8): 2^bits entries, reserved bytes 0.
// Null for any other depth.
const RGBQUAD* fixed_palette(int32_t bits);

// Number of entries of the fixed palette of `bits` (1..8), else 0.
inline uint32_t fixed_palette_size(int32_t bits) {
  return (bits >= 1 && bits <= 8) ? (1u << bits) : 0u;
}

// Entry i = (i, i, i, 0).
const RGBQUAD* gray_ramp();

// Colour cube: entry (r * 6 + g) * 6 + b holds the levels r, g, b of
// {0, 51, 102, 153, 204, 255}; entries 216..255 are black.
const RGBQUAD* color_cube();

// The six levels of the cube, and the cube index of level indices r, g, b.
inline constexpr uint8_t kCubeLevels[6] = {0, 51, 102, 153, 204, 255};
inline constexpr uint32_t cube_index(uint32_t r, uint32_t g, uint32_t b) { return (r * 6 + g) * 6 + b; }

}  // namespace vk
