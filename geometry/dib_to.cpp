// dib_to.cpp - device-independent bitmaps from bitmaps: a new movable
// global-memory block holding the header (40, 108 or 124 bytes), the
// palette and the rows bottom-up (V_ConvertToDIB2), and the same followed
// by freeing the source's storage (V_ChangeToDIB2).
//
// A DIB holds 1, 4, 8, 16 (5-5-5), 24 and 32 bits in blue-green-red order.
// Pixels already in such a form are copied straight from the source's rows
// (the fourth byte of 32-bit pixels, the alpha channel, goes along); palette
// depths of 2, 3 and 5-7 bits are widened index for index to 4 or 8 bits;
// everything else goes through colour resolution first.  A bitmap stored in
// a transposed or mirrored view perspective is turned to 2 (bottom-up) in a
// temporary copy.  The source is never changed, whatever fails.
#include <cstring>

#include "core.h"
#include "dib.h"
#include "op.h"
#include "palette.h"
#include "pixel_format.h"
#include "platform.h"

namespace vk {
namespace {

inline void put32(uint8_t* p, uint32_t v) {
  put_le16(p, v & 0xFFFFu);
  put_le16(p + 2, v >> 16);
}

// The DIB depth of a bitmap, and whether its pixels need colour resolution
// (gray samples, 16-bit channels, or channels in another order).
struct Target {
  int32_t bits;
  bool resolve;
};
Target target_of(const BitmapHandle& b) {
  const int32_t bits = b.BitsPerPixel;
  if (bits <= 8) return {bits == 1 ? 1 : bits <= 4 ? 4 : 8, false};
  if (bits == 12 || bits == 48 || (bits == 16 && b.Order == ORDER_GRAY)) return {24, true};
  if (bits == 64) return {32, true};
  return {bits, b.Order != ORDER_BGR};
}

void write_header(uint8_t* p, uint32_t size, const BitmapHandle& b, int32_t bits, uint32_t entries,
                  uint32_t image_bytes) {
  std::memset(p, 0, size);
  put32(p, size);
  put32(p + 4, uint32_t(b.Width));
  put32(p + 8, uint32_t(b.Height));  // positive: rows bottom-up
  put_le16(p + 12, 1);
  put_le16(p + 14, uint32_t(bits));
  put32(p + 16, dib::kNone);
  put32(p + 20, image_bytes);
  put32(p + 24, uint32_t(dib::ppm_of(b.XResolution)));
  put32(p + 28, uint32_t(dib::ppm_of(b.YResolution)));
  put32(p + 32, entries);
  if (size == dib::kV5Header) put32(p + 56, dib::kSrgb);  // colour-space type
}

// The pixels of `src` at a DIB depth and in view perspective 0 or 2: the
// source itself, or a temporary bitmap held by `temp`.
int32_t turn_and_resolve(BitmapHandle* src, const Target& t, op::Scratch& temp, BitmapHandle** from) {
  *from = src;
  if (t.resolve) {
    VK_TRY(V_ColorResBitmap(src, temp.get(), t.bits, RESOLVE_BGR, nullptr, nullptr, 0, nullptr, 0));
    *from = temp.get();
  }
  const int32_t vp = (*from)->ViewPerspective;
  if (vp != 0 && vp != 2) {
    constexpr uint32_t kDup = DUP_ALLOCATE | DUP_OWN_PALETTE;
    if (*from == src)
      VK_TRY(V_IntChangeBitmapViewPerspective(temp.get(), src, 2, kDup));
    else
      VK_TRY(V_IntChangeBitmapViewPerspective(nullptr, temp.get(), 2, kDup));
    *from = temp.get();
  }
  return RESULT_OK;
}

VK_HGLOBAL to_dib(BitmapHandle* src, int32_t type) {
  if (check_bitmap(src) != RESULT_OK || !valid_bitmap_depth(src->BitsPerPixel)) return nullptr;
  if (type < 0 || type > 2) return nullptr;
  const uint32_t header = type == 0 ? dib::kInfoHeader : type == 1 ? dib::kV4Header : dib::kV5Header;
  const Target t = target_of(*src);

  // The calls below are parts of this one; they report no progress.
  SuspendStatus quiet;
  op::CacheGuard restore_cache(src);
  op::Scratch temp;
  BitmapHandle* from = nullptr;
  if (turn_and_resolve(src, t, temp, &from) != RESULT_OK) return nullptr;

  RGBQUAD palette[kMaxPaletteEntries];
  uint32_t entries = 0;
  if (t.bits <= 8) {
    const uint32_t most = 1u << from->BitsPerPixel;
    entries = read_bitmap_palette(from, palette);
    if (entries == 0) {
      // A palette bitmap without a palette reads as the fixed one of its depth.
      if (const RGBQUAD* fixed = V_IntGetFixedPalette(from->BitsPerPixel)) {
        entries = most;
        std::memcpy(palette, fixed, entries * sizeof(RGBQUAD));
      }
    }
    if (entries > most) entries = most;
  }

  const uint32_t width = uint32_t(from->Width), height = uint32_t(from->Height);
  const uint32_t src_bpl = from->BytesPerLine, dst_bpl = bytes_per_line(from->Width, t.bits);
  const uint64_t image = uint64_t{dst_bpl} * height;
  const uint64_t total = header + uint64_t{entries} * 4 + image;
  if (image > UINT32_MAX || total > SIZE_MAX) return nullptr;
  VK_HGLOBAL block = plat::global_alloc(plat::GMEM_MOVEABLE | plat::GMEM_SHARE, size_t(total));
  if (!block) return nullptr;
  ScopeExit drop([&] { plat::global_free(block); });
  auto* p = static_cast<uint8_t*>(plat::global_lock(block));
  if (!p) return nullptr;
  ScopeExit unlock([&] { plat::global_unlock(block); });

  write_header(p, header, *from, t.bits, entries, uint32_t(image));
  std::memcpy(p + header, palette, entries * sizeof(RGBQUAD));
  uint8_t* rows = p + header + uint64_t{entries} * 4;

  // Palette depths the DIB cannot hold are widened through index runs.
  const bool widen = t.bits != from->BitsPerPixel;
  const uint32_t used = uint32_t((uint64_t{width} * uint32_t(t.bits) + 7) / 8);
  Buffer<uint8_t> row, indices;
  if (widen && (!row.allocate(src_bpl) || !indices.allocate(width))) return nullptr;
  const RunCodec& in = run_codec(from->BitsPerPixel, kRgb);
  const RunCodec& out = run_codec(t.bits, kRgb);
  const bool bottom_up = from->ViewPerspective == 2;
  {
    BitmapLock lock(from);
    for (uint32_t i = 0; i < height; ++i) {
      const uint32_t y = bottom_up ? i : height - 1 - i;
      uint8_t* dst = rows + uint64_t{i} * dst_bpl;
      if (!widen) {
        if (V_GetBitmapRow(from, dst, y, int32_t(dst_bpl)) != int32_t(dst_bpl)) return nullptr;
        // A source row's padding may hold whatever an earlier conversion left
        // there; a DIB handed to other code gets clean rows.
        std::memset(dst + used, 0, dst_bpl - used);
        continue;
      }
      if (V_GetBitmapRow(from, row.get(), y, int32_t(src_bpl)) != int32_t(src_bpl)) return nullptr;
      std::memset(dst, 0, dst_bpl);
      in.decode(row.get(), 0, width, indices.get(), SampleRange{0, 0xFF});
      out.encode(dst, 0, width, indices.get());
    }
  }
  drop.dismiss();
  return block;
}

}  // namespace
}  // namespace vk

extern "C" VK_API VK_HGLOBAL VK_CALL V_ConvertToDIB2(BitmapHandle* bitmap, int32_t type) {
  return vk::api_call([&] { return vk::to_dib(bitmap, type); }, VK_HGLOBAL{nullptr});
}

extern "C" VK_API VK_HGLOBAL VK_CALL V_ConvertToDIB(BitmapHandle* bitmap) { return V_ConvertToDIB2(bitmap, 0); }

extern "C" VK_API VK_HGLOBAL VK_CALL V_ChangeToDIB2(BitmapHandle* bitmap, int32_t type) {
  return vk::api_call([&]() -> VK_HGLOBAL {
    VK_HGLOBAL block = vk::to_dib(bitmap, type);
    if (block) V_FreeBitmap(bitmap);
    return block;
  }, VK_HGLOBAL{nullptr});
}

extern "C" VK_API VK_HGLOBAL VK_CALL V_ChangeToDIB(BitmapHandle* bitmap) { return V_ChangeToDIB2(bitmap, 0); }
