// lookup.cpp - the exported nearest-colour search and the user match tables
// (the search itself: color/match).
#include "lookup.h"

#include "core.h"

namespace vk {

uint32_t* current_user_match_table() { return settings().UserMatchTable; }

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
        if (!table.allocate(vk::kColorCells)) return nullptr;
        const bool prepared = colors <= 256;
        vk::PaletteMatcher matcher;
        if (prepared) matcher.prepare(palette, colors);
        for (uint32_t i = 0; i < vk::kColorCells; ++i) {
          const uint32_t r = ((i >> 10) & 31) << 3, g = ((i >> 5) & 31) << 3, b = (i & 31) << 3;
          table[i] = (prepared ? matcher.find(r, g, b)
                               : vk::find_palette_index(palette, colors, int32_t(r), int32_t(g), int32_t(b))) +
                     1;
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
