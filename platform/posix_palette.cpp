// posix_palette.cpp - logical palette objects for systems without a graphics
// device interface: an opaque object with the same operations (create from
// entries, count, read, write, nearest colour, delete).
#include <stdlib.h>
#include <string.h>

#include "fault.h"
#include "platform.h"

namespace vk::plat {
namespace {

constexpr uint32_t kMagic = 0x4C41504Bu;  // marks a live palette object
constexpr uint32_t kDead = 0x44414544u;    // written before the object is freed

struct Palette {
  uint32_t magic;
  uint32_t count;  // 1..256
  PaletteEntry entries[256];
};

Palette* from(VK_HPALETTE p) {
  auto* pal = static_cast<Palette*>(p);
  return pal && pal->magic == kMagic ? pal : nullptr;
}

}  // namespace

VK_HPALETTE palette_create(const PaletteEntry* entries, uint32_t count) {
  if (!entries || count == 0 || count > 256) return nullptr;
  if (fault::hit(fault::Kind::palette)) return nullptr;
  auto* pal = static_cast<Palette*>(calloc(1, sizeof(Palette)));
  if (!pal) return nullptr;
  pal->magic = kMagic;
  pal->count = count;
  memcpy(pal->entries, entries, count * sizeof(PaletteEntry));
  fault::count_live(fault::Kind::palette, +1);
  return pal;
}

uint32_t palette_count(VK_HPALETTE p) {
  const Palette* pal = from(p);
  return pal ? pal->count : 0;
}

// As the platform call: a null output asks for the number of entries;
// otherwise the entries from start that exist are copied and counted.
uint32_t palette_get(VK_HPALETTE p, uint32_t start, uint32_t count, PaletteEntry* out) {
  const Palette* pal = from(p);
  if (!pal) return 0;
  if (!out) return pal->count;
  if (start >= pal->count) return 0;
  const uint32_t n = count < pal->count - start ? count : pal->count - start;
  memcpy(out, pal->entries + start, n * sizeof(PaletteEntry));
  return n;
}

uint32_t palette_set(VK_HPALETTE p, uint32_t start, uint32_t count, const PaletteEntry* in) {
  Palette* pal = from(p);
  if (!pal || !in || start >= pal->count) return 0;
  const uint32_t n = count < pal->count - start ? count : pal->count - start;
  memcpy(pal->entries + start, in, n * sizeof(PaletteEntry));
  return n;
}

// The entry with the smallest squared RGB distance; the first of equals wins.
// An invalid palette answers all ones (the platform's invalid-colour value).
uint32_t palette_nearest(VK_HPALETTE p, VK_COLORREF color) {
  const Palette* pal = from(p);
  if (!pal) return 0xFFFFFFFFu;
  const int r = static_cast<int>(color & 0xFF), g = static_cast<int>((color >> 8) & 0xFF),
            b = static_cast<int>((color >> 16) & 0xFF);
  uint32_t best = 0;
  int best_d = 0x7FFFFFFF;
  for (uint32_t i = 0; i < pal->count; ++i) {
    const int dr = pal->entries[i].red - r, dg = pal->entries[i].green - g, db = pal->entries[i].blue - b;
    const int d = dr * dr + dg * dg + db * db;
    if (d < best_d) {
      best_d = d;
      best = i;
      if (d == 0) break;
    }
  }
  return best;
}

bool palette_delete(VK_HPALETTE p) {
  Palette* pal = from(p);
  if (!pal) return false;
  pal->magic = kDead;
  free(pal);
  fault::count_live(fault::Kind::palette, -1);
  return true;
}

}  // namespace vk::plat
