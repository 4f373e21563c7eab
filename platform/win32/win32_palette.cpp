// win32_palette.cpp - logical palettes are the system's own palette objects,
// so a caller can select one into a device context or hand its own in.
#include <windows.h>

#include "fault.h"
#include "platform.h"

namespace vk::plat {

static_assert(sizeof(PaletteEntry) == sizeof(PALETTEENTRY), "entries are the system's");

VK_HPALETTE palette_create(const PaletteEntry* entries, uint32_t count) {
  if (!entries || count == 0 || count > 256) return nullptr;
  if (fault::hit(fault::Kind::palette)) return nullptr;
  struct {
    WORD version, count;
    PALETTEENTRY entries[256];
  } logical;
  logical.version = 0x300;
  logical.count = static_cast<WORD>(count);
  memcpy(logical.entries, entries, count * sizeof(PALETTEENTRY));
  HPALETTE p = CreatePalette(reinterpret_cast<const LOGPALETTE*>(&logical));
  if (p) fault::count_live(fault::Kind::palette, +1);
  return p;
}

uint32_t palette_count(VK_HPALETTE p) {
  WORD count = 0;
  return p && GetObjectA(p, sizeof count, &count) ? count : 0;
}

// A null output asks for the number of entries.
uint32_t palette_get(VK_HPALETTE p, uint32_t start, uint32_t count, PaletteEntry* out) {
  if (!p) return 0;
  if (!out) return palette_count(p);
  return GetPaletteEntries(static_cast<HPALETTE>(p), start, count, reinterpret_cast<PALETTEENTRY*>(out));
}

uint32_t palette_set(VK_HPALETTE p, uint32_t start, uint32_t count, const PaletteEntry* in) {
  if (!p || !in) return 0;
  return SetPaletteEntries(static_cast<HPALETTE>(p), start, count, reinterpret_cast<const PALETTEENTRY*>(in));
}

uint32_t palette_nearest(VK_HPALETTE p, VK_COLORREF color) {
  return p ? GetNearestPaletteIndex(static_cast<HPALETTE>(p), color) : CLR_INVALID;
}

bool palette_delete(VK_HPALETTE p) {
  if (!p || GetObjectType(p) != OBJ_PAL || !DeleteObject(p)) return false;
  fault::count_live(fault::Kind::palette, -1);
  return true;
}

}  // namespace vk::plat
