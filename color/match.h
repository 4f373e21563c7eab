// match.h - nearest-colour search helpers shared by conversion, pixel access,
// dithering and colour resolution.
#pragma once

#include <cstdint>

#include "pixel_format.h"
#include "vkkrn.h"

namespace vk {

// Cells of a user match table: one per 5-5-5 colour (kColorCells), cell
// (r5, g5, b5) at r5 * 1024 + g5 * 32 + b5, holding palette index + 1
// (0 = unresolved).
inline constexpr uint32_t match_cell(uint32_t r5, uint32_t g5, uint32_t b5) { return (r5 << 10) | (g5 << 5) | b5; }

// The nearest-colour search behind V_FindPaletteIndex (no exception paths).
uint32_t find_palette_index(const RGBQUAD* palette, uint32_t colors, int32_t red, int32_t green, int32_t blue);

// The same search prepared for one palette, for loops that match many
// colours against it.  Gives exactly find_palette_index's answer for channel
// values 0..255 (vectorised distance pass, then the same tie rules).
class PaletteMatcher {
 public:
  // `colors` entries of `palette` (1..256); the palette must stay alive.
  void prepare(const RGBQUAD* palette, uint32_t colors);
  uint32_t find(uint32_t red, uint32_t green, uint32_t blue) const;
  // The same without the wide-vector path (what find uses on processors
  // without it); kept callable so both paths can be checked on one machine.
  uint32_t find_baseline(uint32_t red, uint32_t green, uint32_t blue) const;

 private:
  bool shortcut(uint32_t red, uint32_t green, uint32_t blue, uint32_t& answer) const;
  uint32_t search_avx2(uint32_t red, uint32_t green, uint32_t blue) const;
  uint32_t search_sse2(uint32_t red, uint32_t green, uint32_t blue) const;

  const RGBQUAD* palette_ = nullptr;
  uint32_t colors_ = 0;
  uint32_t padded_ = 0;  // colors_ rounded up to a multiple of 8
  alignas(32) int16_t rg_[512];  // red, green interleaved per entry
  alignas(32) int16_t b0_[512];  // blue, 0 per entry
  uint8_t code_[256];
};

// Map from source indices (or gray levels when src is null) to destination
// indices (or gray levels when dst is null).  Counts above 256 are taken as
// 256.  Returns 1 when the map is the identity over the entries it filled,
// else 0.  Entries it does not fill are left as they were.
int build_palette_map(const RGBQUAD* src, uint32_t srcColors, const RGBQUAD* dst, uint32_t dstColors,
                      uint8_t map[256]);

}  // namespace vk
