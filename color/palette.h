// palette.h - internal palette helpers shared by the colour, reduction and
// storage code.
//
// A bitmap's palette has two forms, told apart by PALETTE_IS_TABLE:
//  * flag clear: Palette is a platform palette object (platform.h);
//  * flag set:   Palette is an owned RGBQUAD table of ColorCount entries in a
//                V_OsAlloc block.
// Every platform palette holds 1 to 256 entries.
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk {

constexpr uint32_t kMaxPaletteEntries = 256;

// Platform palette built from RGBQUAD entries (reserved byte -> flags byte);
// null when count is not 1..256, entries is null or the platform refuses.
VK_HPALETTE make_platform_palette(const RGBQUAD* entries, uint32_t count);

// Owned table copy of count RGBQUAD entries (V_OsAlloc); null when count is
// not 1..256, entries is null or the allocation fails.
RGBQUAD* make_palette_table(const RGBQUAD* entries, uint32_t count);

// Reads every palette entry of a bitmap (at most 256) in either form into
// out; returns the number read (0 when there is no palette).
uint32_t read_bitmap_palette(BitmapHandle* b, RGBQUAD out[kMaxPaletteEntries]);

// Releases the bitmap's palette in its own form and sets Palette to 0.  The
// PALETTE_IS_TABLE bit is kept: it also says which form the bitmap wants
// for the next palette it gets.
void free_bitmap_palette(BitmapHandle* b);

// Frees a palette of the given form (table or platform object); null is fine.
void free_palette(void* palette, bool table);

}  // namespace vk
