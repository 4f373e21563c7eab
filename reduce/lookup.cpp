// lookup.cpp - nearest-colour search, user match tables and the index map
// that buffer conversion uses between two palettes.
#include "lookup.h"

#include <cstring>

#include "core.h"

namespace vk {
namespace {

// Channel-order code of a colour: bit 2 blue > red; bit 1 green below both
// red and blue; bit 0 green above both (exclusive with bit 1).  Equal
// distances are broken in favour of a later entry only when its code matches
// the target's, so ties keep the hue ordering of the target.
inline uint32_t order_code(int32_t r, int32_t g, int32_t b) {
  uint32_t code = (b > r) ? 4u : 0u;
  const int32_t lo = r < b ? r : b;
  const int32_t hi = r < b ? b : r;
  if (g < lo)
    code |= 2u;
  else if (g > hi)
    code |= 1u;
  return code;
}

inline bool is_black(const RGBQUAD& e) { return (e.rgbRed | e.rgbGreen | e.rgbBlue) == 0; }
inline bool is_white(const RGBQUAD& e) { return (e.rgbRed & e.rgbGreen & e.rgbBlue) == 255; }

}  // namespace

uint32_t find_palette_index(const RGBQUAD* palette, uint32_t colors, int32_t red, int32_t green, int32_t blue) {
  if (!palette) return 0;
  // An empty palette has no entry to compare against, so the black/white
  // shortcuts (which look at entries 0 and colors - 1) are not tried.
  if (colors == 0) return 0xFFFFFFFFu;
  const uint32_t last = colors - 1;
  if ((red | green | blue) == 0) {
    if (is_black(palette[0])) return 0;
    if (is_black(palette[last])) return last;
  } else if ((red & green & blue) == 255) {
    // White prefers the last entry, black the first.
    if (is_white(palette[last])) return last;
    if (is_white(palette[0])) return 0;
  }
  const uint32_t target = order_code(red, green, blue);
  uint32_t best = 0xFFFFFFFFu;
  uint32_t best_index = 0xFFFFFFFFu;
  for (uint32_t i = 0; i < colors; ++i) {
    const RGBQUAD& e = palette[i];
    const uint32_t db = static_cast<uint32_t>(e.rgbBlue - blue);
    const uint32_t dg = static_cast<uint32_t>(e.rgbGreen - green);
    const uint32_t dr = static_cast<uint32_t>(e.rgbRed - red);
    const uint32_t d = db * db + dg * dg + dr * dr;  // unsigned 32-bit, wraps like the reference arithmetic
    if (d < best) {
      best = d;
      best_index = i;
    } else if (d == best && order_code(e.rgbRed, e.rgbGreen, e.rgbBlue) == target) {
      best_index = i;
    }
    if (best == 0) break;  // the first exact match wins
  }
  return best_index;
}

uint32_t* current_user_match_table() { return settings().UserMatchTable; }

int build_palette_map(const RGBQUAD* src, uint32_t srcColors, const RGBQUAD* dst, uint32_t dstColors,
                      uint8_t map[256]) {
  if (srcColors > 256) srcColors = 256;
  if (dstColors > 256) dstColors = 256;
  if (!src && !dst) return 1;
  uint32_t filled = 0;
  if (src && dst) {
    if (srcColors <= dstColors && std::memcmp(src, dst, srcColors * sizeof(RGBQUAD)) == 0) {
      for (uint32_t i = 0; i < srcColors; ++i) map[i] = static_cast<uint8_t>(i);
      return 1;
    }
    for (uint32_t i = 0; i < srcColors; ++i)
      map[i] = static_cast<uint8_t>(find_palette_index(dst, dstColors, src[i].rgbRed, src[i].rgbGreen, src[i].rgbBlue));
    filled = srcColors;
  } else if (src) {
    // Gray destination: the gray level of each source entry.
    for (uint32_t i = 0; i < srcColors; ++i)
      map[i] = static_cast<uint8_t>(gray_level(src[i].rgbRed, src[i].rgbGreen, src[i].rgbBlue));
    filled = srcColors;
  } else {
    // Gray source: the nearest destination entry of each level.
    for (uint32_t v = 0; v < 256; ++v)
      map[v] = static_cast<uint8_t>(find_palette_index(dst, dstColors, int32_t(v), int32_t(v), int32_t(v)));
    filled = 256;
  }
  for (uint32_t i = 0; i < filled; ++i)
    if (map[i] != i) return 0;
  return 1;
}

}  // namespace vk

extern "C" {

VK_API uint32_t VK_CALL V_FindPaletteIndex(const RGBQUAD* palette, uint32_t colors, int32_t red, int32_t green,
                                           int32_t blue) {
  return vk::api_call([&] { return vk::find_palette_index(palette, colors, red, green, blue); }, 0u);
}

// Each cell is answered for its lower corner (the 5-bit fields shifted left
// by 3, low bits 0), not its centre.
VK_API uint32_t* VK_CALL V_CreateUserMatchTable(const RGBQUAD* palette, uint32_t colors) {
  return vk::api_call(
      [&]() -> uint32_t* {
        if (!palette) return nullptr;
        vk::Buffer<uint32_t> table;
        if (!table.allocate(vk::kMatchTableCells)) return nullptr;
        for (uint32_t i = 0; i < vk::kMatchTableCells; ++i) {
          const int32_t r = int32_t((i >> 10) & 31) << 3;
          const int32_t g = int32_t((i >> 5) & 31) << 3;
          const int32_t b = int32_t(i & 31) << 3;
          table[i] = vk::find_palette_index(palette, colors, r, g, b) + 1;
        }
        return table.release();
      },
      static_cast<uint32_t*>(nullptr));
}

VK_API int32_t VK_CALL V_FreeUserMatchTable(uint32_t* table) {
  return vk::api_call([&]() -> int32_t {
    if (table) V_Free(table);
    return RESULT_OK;
  });
}

// Installs a table for the calling thread only; the library never frees a
// table it did not allocate, so the previous one goes back to the caller.
VK_API uint32_t* VK_CALL V_SetUserMatchTable(uint32_t* table) {
  return vk::api_call(
      [&]() -> uint32_t* {
        ThreadSettings& s = vk::settings();
        uint32_t* old = s.UserMatchTable;
        s.UserMatchTable = table;
        return old;
      },
      static_cast<uint32_t*>(nullptr));
}

}  // extern "C"
