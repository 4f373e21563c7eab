// dib_from.cpp - bitmaps from device-independent bitmaps: taking the
// caller's block over (V_ChangeFromDIB), using it while the caller keeps it
// (V_MirrorFromDIB), or copying it (V_ConvertFromDIB).
//
// A block is taken as it lies whenever its rows are already stored pixels:
// the bitmap then points into the block (global-memory storage at the
// offset of the pixel data).  Colour masks other than the bitmap's own
// layouts are rewritten in place, but only once the block belongs to the
// bitmap (Change) and every allocation has succeeded; a block the caller
// keeps (Mirror) is copied instead, as are video frames.
#include <cstring>

#include "core.h"
#include "dib.h"
#include "op.h"
#include "platform.h"

namespace vk {
namespace {

// The record a DIB describes, without storage: dimensions, order, view
// perspective, resolutions and palette.
int32_t describe(const dib::Info& d, int32_t bits, BitmapHandle* b) {
  VK_TRY(V_InitBitmap(b, d.width, d.height < 0 ? -d.height : d.height, bits));
  b->ViewPerspective = d.height > 0 ? 2 : 0;
  b->Order = bits <= 8 || d.masks == dib::Masks::swapped ? ORDER_RGB : ORDER_BGR;
  b->XResolution = dib::dpi_of(d.x_ppm, true);
  b->YResolution = dib::dpi_of(d.y_ppm, false);
  if (d.palette_count) {
    b->Palette = V_CreatePalette(d.palette, int32_t(d.palette_count));
    if (!b->Palette) return RESULT_FAIL;
    b->ColorCount = d.palette_count;
  }
  return RESULT_OK;
}

// A bitmap with its own storage from the header and the pixel data at
// `bits`: stored rows copied (bit fields rewritten on the way) or video
// frames converted to 24-bit colour, rows top-down.
int32_t convert_from(const dib::Info& d, const uint8_t* bits, BitmapHandle* bitmap) {
  const bool video = d.video != dib::Video::none;
  if (!video) VK_TRY(dib::check_storable(d));
  op::Scratch out;
  VK_TRY(describe(d, video ? 24 : int32_t(d.bits), out.get()));
  if (video) out->ViewPerspective = 0;
  int32_t memory_type = TYPE_CONVENTIONAL;
  if (V_GetDefaultMemoryType(&memory_type) != RESULT_OK) memory_type = TYPE_CONVENTIONAL;
  VK_TRY(V_AllocateBitmap(out.get(), memory_type));

  const uint32_t bpl = out->BytesPerLine;
  Buffer<uint8_t> row;
  if (!row.allocate(bpl, true)) return RESULT_FAIL;
  const dib::Planes planes = video ? dib::planes_of(d, bits) : dib::Planes{};
  // 16-bit rows are rewritten in whole pairs: the padding of an odd width
  // is one more pixel.
  const uint32_t pixels = d.bits == 16 ? (uint32_t(d.width) + 1) & ~1u : uint32_t(d.width);
  BitmapLock lock(out.get());
  VK_TRY(op::for_each_row({out->Height}, [&](int32_t y) -> int32_t {
    if (video) {
      dib::video_row(planes, uint32_t(d.width), uint32_t(y), row.get());
    } else {
      std::memcpy(row.get(), bits + uint64_t(uint32_t(y)) * d.stride, bpl);
      dib::rewrite_row(d, row.get(), pixels);
    }
    const int32_t put = V_PutBitmapRow(out.get(), row.get(), uint32_t(y), int32_t(bpl));
    return put < 0 ? put : int32_t{RESULT_OK};
  }));
  op::hand_over(out, bitmap);
  return RESULT_OK;
}

// The bitmap takes the block's pixels where they lie.
int32_t take_over(const dib::Info& d, VK_HGLOBAL block, uint8_t* base, bool mirror, BitmapHandle* bitmap) {
  op::Scratch out;
  VK_TRY(describe(d, int32_t(d.bits), out.get()));
  OsBlock lut(V_OsAlloc(256));
  if (!lut) return RESULT_FAIL;
  auto* table = static_cast<uint8_t*>(lut.get());
  for (uint32_t i = 0; i < 256; ++i) table[i] = uint8_t(i);

  // Nothing can fail from here on.  Mirror never gets here with masks to
  // rewrite, so the caller's own block is never written.
  if (d.compression == dib::kBitFields && !mirror) {
    const uint32_t pixels = d.bits == 16 ? (uint32_t(d.width) + 1) & ~1u : uint32_t(d.width);
    for (int32_t y = 0; y < out->Height; ++y)
      dib::rewrite_row(d, base + d.pixel_offset + uint64_t(uint32_t(y)) * d.stride, pixels);
  }
  BitmapHandle n = out.release();
  n.PaintLut = static_cast<uint8_t*>(lut.release());
  n.StorageHandle = block;
  n.AlignOffset = uint32_t(d.pixel_offset);
  n.Data = nullptr;
  n.Flags = (n.Flags & ~(BITMAP_TILED | BITMAP_LOCKED | BITMAP_USER_DATA)) | BITMAP_GLOBAL_MEMORY |
            BITMAP_IN_MEMORY | BITMAP_ALLOCATED | (mirror ? BITMAP_USER_DATA : 0u);
  *bitmap = n;
  return RESULT_OK;
}

int32_t from_dib(BitmapHandle* bitmap, VK_HGLOBAL block, bool mirror) {
  if (!bitmap || !block) return RESULT_BAD_PARAMETER;
  auto* base = static_cast<uint8_t*>(plat::global_lock(block));
  if (!base) return RESULT_BAD_PARAMETER;
  ScopeExit unlock([&] { plat::global_unlock(block); });
  dib::Info d;
  VK_TRY(dib::read_info(base, plat::global_size(block), &d));
  if (d.video != dib::Video::none || (mirror && d.compression == dib::kBitFields)) {
    VK_TRY(convert_from(d, base + d.pixel_offset, bitmap));
    if (!mirror) {
      unlock.dismiss();
      plat::global_unlock(block);
      plat::global_free(block);
    }
    return RESULT_OK;
  }
  VK_TRY(dib::check_storable(d));
  return take_over(d, block, base, mirror, bitmap);
}

}  // namespace
}  // namespace vk

extern "C" VK_API int32_t VK_CALL V_ChangeFromDIB(BitmapHandle* bitmap, VK_HGLOBAL dib) {
  return vk::api_call([&] { return vk::from_dib(bitmap, dib, false); });
}

extern "C" VK_API int32_t VK_CALL V_MirrorFromDIB(BitmapHandle* bitmap, VK_HGLOBAL dib) {
  return vk::api_call([&] { return vk::from_dib(bitmap, dib, true); });
}

extern "C" VK_API int32_t VK_CALL V_ConvertFromDIB(BitmapHandle* bitmap, const void* header, const void* bits) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !header || !bits) return RESULT_BAD_PARAMETER;
    vk::dib::Info d;
    VK_TRY(vk::dib::read_info(static_cast<const uint8_t*>(header), SIZE_MAX, &d));
    return vk::convert_from(d, static_cast<const uint8_t*>(bits), bitmap);
  });
}
