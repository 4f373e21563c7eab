// palette.cpp - palettes in both forms (platform object and owned table),
// gray and fixed palettes, and the bitmap palette operations.
//
// Duplication of a platform palette always goes through its entries (size,
// read into a V_Malloc'd array, create anew), so a copy keeps colours and
// flags bytes and nothing else of the platform object.

#include "palette.h"

#include <cstring>

#include "core.h"
#include "platform.h"

namespace vk {
namespace {

inline plat::PaletteEntry to_platform(const RGBQUAD& q) {
  return plat::PaletteEntry{q.rgbRed, q.rgbGreen, q.rgbBlue, q.rgbReserved};
}

inline RGBQUAD from_platform(const plat::PaletteEntry& e) {
  RGBQUAD q;
  q.rgbBlue = e.blue;
  q.rgbGreen = e.green;
  q.rgbRed = e.red;
  q.rgbReserved = e.flags;
  return q;
}

// Reads up to 256 entries of a platform palette from start; returns the count.
uint32_t read_platform(VK_HPALETTE p, uint32_t start, uint32_t count, RGBQUAD* out) {
  if (!p || !out || count == 0) return 0;
  if (count > kMaxPaletteEntries) count = kMaxPaletteEntries;
  plat::PaletteEntry tmp[kMaxPaletteEntries];
  uint32_t got = plat::palette_get(p, start, count, tmp);
  if (got > count) got = count;
  for (uint32_t i = 0; i < got; ++i) out[i] = from_platform(tmp[i]);
  return got;
}

// Copy of a platform palette through its entries.
VK_HPALETTE dup_platform(VK_HPALETTE p) {
  if (!p) return nullptr;
  const uint32_t size = plat::palette_count(p);
  if (size == 0 || size > kMaxPaletteEntries) return nullptr;
  Buffer<RGBQUAD> tmp;
  if (!tmp.allocate(size)) return nullptr;
  const uint32_t got = read_platform(p, 0, size, tmp.get());
  if (got == 0) return nullptr;
  return make_platform_palette(tmp.get(), got);
}

// The gray ramp of n entries: i * 255 / (n - 1), truncating; reserved 0.
void fill_gray(RGBQUAD* out, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t v = static_cast<uint8_t>(n > 1 ? i * 255u / (n - 1) : 0u);
    out[i].rgbBlue = out[i].rgbGreen = out[i].rgbRed = v;
    out[i].rgbReserved = 0;
  }
}

// Depth whose fixed palette has `count` entries (2..256, powers of two); 0 if none.
int32_t depth_of_count(uint32_t count) {
  for (int32_t bits = 1; bits <= 8; ++bits)
    if (count == (1u << bits)) return bits;
  return 0;
}

// A new palette in the bitmap's current form; null on failure.
void* make_in_form(const BitmapHandle* b, const RGBQUAD* entries, uint32_t count) {
  if (b->Flags & PALETTE_IS_TABLE) return make_palette_table(entries, count);
  return make_platform_palette(entries, count);
}

}  // namespace

VK_HPALETTE make_platform_palette(const RGBQUAD* entries, uint32_t count) {
  if (!entries || count == 0 || count > kMaxPaletteEntries) return nullptr;
  plat::PaletteEntry tmp[kMaxPaletteEntries];
  for (uint32_t i = 0; i < count; ++i) tmp[i] = to_platform(entries[i]);
  return plat::palette_create(tmp, count);
}

RGBQUAD* make_palette_table(const RGBQUAD* entries, uint32_t count) {
  if (!entries || count == 0 || count > kMaxPaletteEntries) return nullptr;
  auto* t = static_cast<RGBQUAD*>(V_OsAlloc(count * sizeof(RGBQUAD)));
  if (!t) return nullptr;
  std::memcpy(t, entries, count * sizeof(RGBQUAD));
  return t;
}

uint32_t read_bitmap_palette(BitmapHandle* b, RGBQUAD out[kMaxPaletteEntries]) {
  if (!b || !b->Palette || b->ColorCount == 0) return 0;
  const uint32_t n = b->ColorCount > kMaxPaletteEntries ? kMaxPaletteEntries : b->ColorCount;
  const int32_t got = V_GetBitmapPaletteEntries(b, 0, static_cast<int32_t>(n), out);
  return got > 0 ? static_cast<uint32_t>(got) : 0u;
}

void free_palette(void* palette, bool table) {
  if (!palette) return;
  if (table)
    V_OsFree(palette);
  else
    plat::palette_delete(palette);
}

void free_bitmap_palette(BitmapHandle* b) {
  if (!b || !b->Palette) return;
  free_palette(b->Palette, (b->Flags & PALETTE_IS_TABLE) != 0);
  b->Palette = nullptr;
}

}  // namespace vk

using vk::kMaxPaletteEntries;

// ---- platform palettes ----------------------------------------------------------

extern "C" VK_API VK_HPALETTE VK_CALL V_CreatePalette(const RGBQUAD* entries, int32_t count) {
  return vk::api_call([&]() -> VK_HPALETTE {
    // A negative count, taken as unsigned, exceeds 256 as well.
    if (!entries || count <= 0 || static_cast<uint32_t>(count) > kMaxPaletteEntries) return nullptr;
    return vk::make_platform_palette(entries, static_cast<uint32_t>(count));
  }, VK_HPALETTE{nullptr});
}

extern "C" VK_API int32_t VK_CALL V_GetPaletteSize(VK_HPALETTE palette) {
  return vk::api_call([&]() -> int32_t {
    if (!palette) return 0;
    return static_cast<int32_t>(vk::plat::palette_count(palette));
  }, int32_t{0});
}

extern "C" VK_API int32_t VK_CALL V_GetPaletteEntries(VK_HPALETTE palette, int32_t start, int32_t count,
                                                      RGBQUAD* out) {
  return vk::api_call([&]() -> int32_t {
    if (!palette || !out || start < 0 || count <= 0) return 0;
    return static_cast<int32_t>(
        vk::read_platform(palette, static_cast<uint32_t>(start), static_cast<uint32_t>(count), out));
  }, int32_t{0});
}

extern "C" VK_API int32_t VK_CALL V_SetPaletteEntries(VK_HPALETTE palette, int32_t start, int32_t count,
                                                      const RGBQUAD* entries) {
  return vk::api_call([&]() -> int32_t {
    if (!palette || !entries || start < 0 || count <= 0) return 0;
    const uint32_t n = static_cast<uint32_t>(count) > kMaxPaletteEntries ? kMaxPaletteEntries
                                                                          : static_cast<uint32_t>(count);
    vk::plat::PaletteEntry tmp[kMaxPaletteEntries];
    for (uint32_t i = 0; i < n; ++i) tmp[i] = vk::to_platform(entries[i]);
    return static_cast<int32_t>(vk::plat::palette_set(palette, static_cast<uint32_t>(start), n, tmp));
  }, int32_t{0});
}

extern "C" VK_API VK_HPALETTE VK_CALL V_CreateSystemPalette(void) {
  return vk::api_call([&]() -> VK_HPALETTE {
    const vk::plat::ScreenInfo screen = vk::plat::screen_info();
    if (!screen.palette_device) return nullptr;
    uint32_t n = screen.palette_size;
    if (n > kMaxPaletteEntries) n = kMaxPaletteEntries;
    return vk::make_platform_palette(screen.system_palette, n);
  }, VK_HPALETTE{nullptr});
}

extern "C" VK_API VK_HPALETTE VK_CALL V_DupPalette(VK_HPALETTE palette) {
  return vk::api_call([&]() -> VK_HPALETTE { return vk::dup_platform(palette); }, VK_HPALETTE{nullptr});
}

extern "C" VK_API VK_HPALETTE VK_CALL V_CreateGrayPalette(int32_t bits) {
  return vk::api_call([&]() -> VK_HPALETTE {
    if (bits == 0) bits = 8;
    if (bits < 1 || bits > 8) return nullptr;
    const uint32_t n = 1u << bits;
    vk::Buffer<RGBQUAD> tmp;
    if (!tmp.allocate(n)) return nullptr;
    vk::fill_gray(tmp.get(), n);
    return vk::make_platform_palette(tmp.get(), n);
  }, VK_HPALETTE{nullptr});
}

extern "C" VK_API VK_HPALETTE VK_CALL V_CreateFixedPalette(int32_t bits) {
  return vk::api_call([&]() -> VK_HPALETTE {
    // 0 means black and white here (unlike V_GetFixedPalette, where 0 is the gray ramp).
    if (bits == 0) bits = 1;
    if (bits < 1 || bits > 8) return nullptr;
    const RGBQUAD* fixed = V_IntGetFixedPalette(bits);
    return vk::make_platform_palette(fixed, 1u << bits);
  }, VK_HPALETTE{nullptr});
}

// ---- bitmap palettes --------------------------------------------------------------

extern "C" VK_API void VK_CALL V_CreateBitmapPalette(BitmapHandle* bitmap, const RGBQUAD* entries, int32_t count) {
  vk::api_call_void([&] {
    if (!bitmap || !entries) return;
    // The previous palette is deliberately not released: callers hand over
    // records whose palette is owned elsewhere.
    const uint32_t n = static_cast<uint32_t>(count);
    bitmap->Palette = vk::make_in_form(bitmap, entries, n);
    bitmap->ColorCount = n;
  });
}

extern "C" VK_API int32_t VK_CALL V_GetBitmapPaletteEntries(BitmapHandle* bitmap, int32_t start, int32_t count,
                                                            RGBQUAD* out) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !out || !bitmap->Palette) return 0;
    if (bitmap->Flags & PALETTE_IS_TABLE) {
      // start and count are compared as unsigned, so a negative start reads nothing.
      const uint64_t s = static_cast<uint32_t>(start);
      const uint64_t have = bitmap->ColorCount;
      if (s >= have || count <= 0) return 0;
      uint64_t end = s + static_cast<uint32_t>(count);
      if (end > have) end = have;
      const uint32_t n = static_cast<uint32_t>(end - s);
      std::memcpy(out, static_cast<const RGBQUAD*>(bitmap->Palette) + s, n * sizeof(RGBQUAD));
      return static_cast<int32_t>(n);
    }
    return V_GetPaletteEntries(bitmap->Palette, start, count, out);
  }, int32_t{0});
}

extern "C" VK_API int32_t VK_CALL V_GetBitmapColors(BitmapHandle* bitmap, int32_t start, int32_t count, RGBQUAD* out) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_NO_BITMAP;
    if (count < 1 || bitmap->BitsPerPixel >= 9) return RESULT_BAD_PARAMETER;
    const int32_t got = V_GetBitmapPaletteEntries(bitmap, start, count, out);
    return got < count ? RESULT_BAD_PARAMETER : RESULT_OK;
  });
}

extern "C" VK_API int32_t VK_CALL V_PutBitmapColors(BitmapHandle* bitmap, int32_t start, int32_t count,
                                                    const RGBQUAD* entries) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
    if (start < 0 || count < 0 || bitmap->BitsPerPixel >= 9 || !entries) return RESULT_BAD_PARAMETER;
    const uint32_t total = bitmap->ColorCount;
    if (static_cast<uint64_t>(start) + static_cast<uint32_t>(count) > total) return RESULT_BAD_PARAMETER;
    if (total == 0 || total > kMaxPaletteEntries) return RESULT_BAD_PARAMETER;

    // Entries that cannot be read (no palette yet) start black.
    RGBQUAD merged[kMaxPaletteEntries];
    std::memset(merged, 0, sizeof merged);
    vk::read_bitmap_palette(bitmap, merged);
    std::memcpy(merged + start, entries, static_cast<size_t>(count) * sizeof(RGBQUAD));

    // Built before the old one goes, so a failure leaves the bitmap as it was.
    void* fresh = vk::make_in_form(bitmap, merged, total);
    if (!fresh) return RESULT_FAIL;
    vk::free_bitmap_palette(bitmap);
    bitmap->Palette = fresh;
    return RESULT_OK;
  });
}

extern "C" VK_API int32_t VK_CALL V_CreateBitmapGrayPalette(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    const int32_t bits = bitmap->BitsPerPixel;
    if (bits < 1 || bits > 8) return RESULT_BAD_BITS_PER_PIXEL;
    const uint32_t n = 1u << bits;
    RGBQUAD gray[kMaxPaletteEntries];
    vk::fill_gray(gray, n);
    const bool table = (bitmap->Flags & PALETTE_IS_TABLE) != 0;
    void* fresh = table ? static_cast<void*>(vk::make_palette_table(gray, n))
                        : static_cast<void*>(vk::make_platform_palette(gray, n));
    if (!fresh) return RESULT_FAIL;
    // The gray palette replaces the one held before.
    vk::free_bitmap_palette(bitmap);
    bitmap->Palette = fresh;
    // The platform form keeps ColorCount as it was; the table holds exactly n.
    if (table) bitmap->ColorCount = n;
    return RESULT_OK;
  });
}

extern "C" VK_API int32_t VK_CALL V_CreateBitmapFixedPalette(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    const int32_t bits = vk::depth_of_count(bitmap->ColorCount);
    if (bits == 0) return 0;
    void* fresh = vk::make_in_form(bitmap, V_IntGetFixedPalette(bits), bitmap->ColorCount);
    if (!fresh) return RESULT_FAIL;
    // As with V_CreateBitmapPalette, a palette held before is not released.
    bitmap->Palette = fresh;
    return RESULT_OK;
  });
}

extern "C" VK_API VK_HPALETTE VK_CALL V_DupBitmapPalette(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> VK_HPALETTE {
    if (!bitmap || !bitmap->Palette) return nullptr;
    if (bitmap->Flags & PALETTE_IS_TABLE)
      return vk::make_platform_palette(static_cast<const RGBQUAD*>(bitmap->Palette), bitmap->ColorCount);
    return vk::dup_platform(bitmap->Palette);
  }, VK_HPALETTE{nullptr});
}

extern "C" VK_API int32_t VK_CALL V_CopyBitmapPalette(BitmapHandle* destination, BitmapHandle* source) {
  return vk::api_call([&]() -> int32_t {
    if (!destination || !source) return RESULT_BAD_PARAMETER;
    if (!source->Palette) {
      destination->ColorCount = 0;
      destination->Palette = nullptr;
      return RESULT_OK;
    }
    const bool table = (source->Flags & PALETTE_IS_TABLE) != 0;
    void* copy = table ? static_cast<void*>(vk::make_palette_table(static_cast<const RGBQUAD*>(source->Palette),
                                                                   source->ColorCount))
                       : static_cast<void*>(vk::dup_platform(source->Palette));
    // A failed copy leaves the destination as it was.
    if (!copy) return 0;
    destination->ColorCount = source->ColorCount;
    destination->Palette = copy;
    destination->Flags = (destination->Flags & ~PALETTE_IS_TABLE) | (source->Flags & PALETTE_IS_TABLE);
    return 1;
  });
}

extern "C" VK_API int32_t VK_CALL V_CompareBitmapToPalette(BitmapHandle* bitmap, const RGBQUAD* entries, int32_t count) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return 0;
    if (count <= 0) return 1;
    const int32_t n = count > static_cast<int32_t>(kMaxPaletteEntries) ? static_cast<int32_t>(kMaxPaletteEntries)
                                                                        : count;
    RGBQUAD have[kMaxPaletteEntries];
    const int32_t got = V_GetBitmapPaletteEntries(bitmap, 0, n, have);
    if (got <= 0) return 1;  // nothing readable compares equal
    if (!entries) return 0;
    for (int32_t i = 0; i < got; ++i) {
      if (have[i].rgbRed != entries[i].rgbRed || have[i].rgbGreen != entries[i].rgbGreen ||
          have[i].rgbBlue != entries[i].rgbBlue)
        return 0;
    }
    return 1;
  }, int32_t{0});
}

extern "C" VK_API int32_t VK_CALL V_SetBitmapPalette(BitmapHandle* bitmap, VK_HPALETTE palette) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_NO_BITMAP;
    if (!palette) return RESULT_BAD_PARAMETER;
    const uint32_t size = vk::plat::palette_count(palette);
    if (size < 2 || size > kMaxPaletteEntries) return RESULT_BAD_PARAMETER;
    VK_HPALETTE copy = vk::dup_platform(palette);
    vk::free_bitmap_palette(bitmap);
    // A copy that could not be made still counts as done: Palette is then null.
    bitmap->Palette = copy;
    bitmap->ColorCount = size;
    bitmap->Flags &= ~PALETTE_IS_TABLE;
    return RESULT_OK;
  });
}

extern "C" VK_API int32_t VK_CALL V_SetPaletteType(BitmapHandle* bitmap, int32_t type) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
    const bool want_table = type != 0;
    const bool is_table = (bitmap->Flags & PALETTE_IS_TABLE) != 0;
    if (!bitmap->Palette || want_table == is_table) return RESULT_OK;

    if (!want_table) {
      VK_HPALETTE p =
          vk::make_platform_palette(static_cast<const RGBQUAD*>(bitmap->Palette), bitmap->ColorCount);
      if (!p) return RESULT_FAIL;
      V_OsFree(bitmap->Palette);
      bitmap->Palette = p;
      bitmap->Flags &= ~PALETTE_IS_TABLE;
      return RESULT_OK;
    }

    uint32_t n = bitmap->ColorCount;
    if (n == 0 || n > kMaxPaletteEntries) n = vk::plat::palette_count(bitmap->Palette);
    if (n == 0 || n > kMaxPaletteEntries) return RESULT_FAIL;
    auto* t = static_cast<RGBQUAD*>(V_OsAlloc(n * sizeof(RGBQUAD)));
    if (!t) return RESULT_FAIL;
    const uint32_t got = vk::read_platform(bitmap->Palette, 0, n, t);
    vk::plat::palette_delete(bitmap->Palette);
    bitmap->Palette = t;
    bitmap->ColorCount = got;
    bitmap->Flags |= PALETTE_IS_TABLE;
    return RESULT_OK;
  });
}

extern "C" VK_API uint32_t VK_CALL V_GetNearestPaletteIndex(BitmapHandle* bitmap, VK_COLORREF color) {
  return vk::api_call([&]() -> uint32_t {
    if (!bitmap || !bitmap->Palette) return 0;
    if (!(bitmap->Flags & PALETTE_IS_TABLE)) return vk::plat::palette_nearest(bitmap->Palette, color);
    if (bitmap->ColorCount > kMaxPaletteEntries) return 0;
    VK_HPALETTE p = vk::make_platform_palette(static_cast<const RGBQUAD*>(bitmap->Palette), bitmap->ColorCount);
    if (!p) return 0;
    const uint32_t index = vk::plat::palette_nearest(p, color);
    vk::plat::palette_delete(p);
    return index;
  }, uint32_t{0});
}
