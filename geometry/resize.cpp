// resize.cpp - the whole-bitmap resize calls (in place, and into a
// caller's destination) and the row-segment reader, all on the row
// producer of resample.cpp.
//
// Result codes differ on purpose: the public calls answer a null or
// unallocated bitmap with RESULT_BAD_PARAMETER, the shared sizing routine
// with RESULT_NO_BITMAP, which V_ResizeBitmapExt passes on.
//
// The reader keeps the last row it made (a row read in several segments is
// made once) and the producer's own ring of four x-resized source rows, so
// reading rows in order costs what the whole-bitmap call costs.  Going back
// to an earlier row makes it again from its source rows; dithered output
// carries error from row to row, so there the rows are made again from the
// first.  RESIZE_READ_KEEP_ROWS keeps every row made instead (one output
// bitmap's worth of memory); RESIZE_READ_IN_ORDER refuses earlier rows.
#include <algorithm>
#include <cstring>

#include "dispatch.h"
#include "geometry.h"
#include "op.h"
#include "pixel_format.h"
#include "resize.h"

namespace vk::resize {
namespace {

// The destination's palette for conversion and dithering.
struct Palette {
  RGBQUAD entries[256];
  const RGBQUAD* ptr = nullptr;
  int32_t count = 0;
  int32_t of(BitmapHandle* b) {
    VK_TRY(read_palette(b, entries, &count));
    if (count > 0) ptr = entries;
    return RESULT_OK;
  }
  // For output of `bits`: the palette's entries, or the fixed palette's count.
  int32_t colors(int32_t bits) const { return ptr ? count : 1 << std::min(bits, 8); }
};

// The sizing routine shared by V_SizeBitmap and V_ResizeBitmapExt: every
// destination row from the producer, written bottom-up when the two view
// perspectives differ (0 against 2), with progress and cancellation.
int32_t size_into(BitmapHandle* src, BitmapHandle* dst, uint32_t flags) {
  if (!allocated(src) || !allocated(dst)) return RESULT_NO_BITMAP;
  if (!sound_geometry(*src) || !sound_geometry(*dst)) return RESULT_BAD_PARAMETER;
  if (!valid_bitmap_depth(src->BitsPerPixel) || !valid_bitmap_depth(dst->BitsPerPixel))
    return RESULT_BAD_BITS_PER_PIXEL;
  Palette pal;
  VK_TRY(pal.of(dst));
  const Output o{dst->Width,       dst->Height, dst->BitsPerPixel,           dst->Order,
                 dst->BytesPerLine, pal.ptr,     pal.colors(dst->BitsPerPixel), dst->DitheringMethod};
  const Method m = method_for(flags, src, dst->BitsPerPixel, dst->Width, dst->Height);
  op::CacheGuard cache(src);
  BitmapLock lock_src(src), lock_dst(dst);
  Producer* p = nullptr;
  VK_TRY(make_producer(&p, src, nullptr, 0, o, m));
  ScopeExit release([&] { free_producer(p); });
  const bool bottom_up = src->ViewPerspective != dst->ViewPerspective;
  const int32_t h = dst->Height;
  VK_TRY(op::for_each_row(op::Rows{h}, [&](int32_t y) -> int32_t {
    const uint8_t* row;
    VK_TRY(produce_row(p, y, &row));
    const int32_t put =
        V_PutBitmapRow(dst, row, uint32_t(bottom_up ? h - 1 - y : y), int32_t(dst->BytesPerLine));
    return put < 0 ? put : int32_t{RESULT_OK};
  }));
  return RESULT_OK;
}

VK_SCALEREGIONHOOK scale_hook() {
  return reinterpret_cast<VK_SCALEREGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(6)));
}

int32_t size_bitmap(BitmapHandle* b, int32_t width, int32_t height, uint32_t flags) {
  if (!allocated(b) || !sound_geometry(*b)) return RESULT_BAD_PARAMETER;
  if (width == b->Width && height == b->Height) return RESULT_OK;
  if (!dimension_rule(&width, &height, b->Width, b->Height)) return RESULT_BAD_PARAMETER;
  if (width == b->Width && height == b->Height) return RESULT_OK;
  if (b->BitsPerPixel != 1) {
    flags &= ~SIZE_ONE_BIT_DENSITY;
  } else if (flags & SIZE_ONE_BIT_DENSITY) {
    Palette pal;
    VK_TRY(pal.of(b));
    if (pal.ptr && V_IsGrayScalePalette(pal.ptr, pal.count) > 0) flags &= ~SIZE_RESAMPLE;
    else flags &= ~SIZE_ONE_BIT_DENSITY;
  }
  op::Scratch out;
  VK_TRY(V_DupBitmapNewDim(out.get(), b, width, height, b->BitsPerPixel, DUP_ALLOCATE));
  out.shares(true, true);
  out->DitheringMethod = b->DitheringMethod;
  out->LowBit = b->LowBit;
  out->HighBit = b->HighBit;
  op::CacheGuard cache(b);
  VK_TRY(size_into(b, out.get(), flags));
  if (auto hook = scale_hook()) VK_TRY(hook(b, width, height));
  cache.dismiss();
  op::commit(out, b);
  return RESULT_OK;
}

int32_t resize_into(BitmapHandle* src, BitmapHandle* dst, uint32_t flags) {
  if (!src || !dst || src == dst) return RESULT_BAD_PARAMETER;
  const int32_t sv = src->ViewPerspective, dv = dst->ViewPerspective;
  const bool rows_only = (sv == 0 || sv == 2) && (dv == 0 || dv == 2);
  Buffer<BitmapHandle> turned;
  bool made = false;
  ScopeExit drop([&] {
    if (made) V_FreeDuplicateBitmap(turned.get(), DUP_ALLOCATE);
  });
  BitmapHandle* from = src;
  if (sv != dv && !rows_only) {
    if (!turned.allocate(1, true)) return RESULT_FAIL;
    VK_TRY(V_IntChangeBitmapViewPerspective(turned.get(), src, dv, DUP_ALLOCATE));
    made = true;
    from = turned.get();
  }
  VK_TRY(size_into(from, dst, flags));
  auto hook = scale_hook();
  if (!hook || !dst->Region || dst->Region == src->Region) return RESULT_OK;
  // The hook scales the region of the record it is given: the source's,
  // standing in for the destination's for the call.
  void* const own = src->Region;
  src->Region = dst->Region;
  const int32_t r = hook(src, dst->Width, dst->Height);
  dst->Region = src->Region;
  src->Region = own;
  return r;
}

// ---- the row-segment reader ---------------------------------------------------------------------

struct Reader {
  uint32_t mark;  // sizeof(Reader) while the reader is alive
  BitmapHandle* src;
  bool locked;
  int32_t lock_was;
  uint32_t flags;
  int32_t width, height, bits;
  uint32_t bytes;  // one row
  int32_t last_row;
  Producer* producer;
  Palette pal;
  Buffer<uint8_t> kept;   // RESIZE_READ_KEEP_ROWS: every row
  Buffer<uint8_t> made;   // which rows `kept` holds
};

int32_t start_reader(BitmapHandle* src, int32_t width, int32_t height, int32_t bits, const RGBQUAD* palette,
                     int32_t colors, uint32_t flags, RowReader reader, intptr_t user, void** state) {
  if (!state) return RESULT_BAD_PARAMETER;
  if (!src || (!reader && !allocated(src))) return RESULT_NO_BITMAP;
  if (!sound_geometry(*src) || !valid_bitmap_depth(src->BitsPerPixel)) return RESULT_BAD_PARAMETER;
  if (!dimension_rule(&width, &height, src->Width, src->Height)) return RESULT_BAD_PARAMETER;
  if (bits < 1) bits = src->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_PARAMETER;
  if (palette && (colors < 1 || colors > 256)) return RESULT_BAD_PARAMETER;
  if (uint64_t{bytes_per_line(width, bits)} * uint32_t(height) > UINT32_MAX) return RESULT_BAD_PARAMETER;

  uint32_t size_flags = 0;
  if (flags & RESIZE_READ_DENSITY) size_flags |= SIZE_ONE_BIT_DENSITY;
  if (flags & RESIZE_READ_AVERAGE) size_flags |= SIZE_RESAMPLE;
  if (flags & RESIZE_READ_SPLINE) size_flags |= SIZE_SMOOTH;
  int32_t order = src->Order;
  if (bits != src->BitsPerPixel) {
    if (bits == 12 || (bits == 16 && src->Order == ORDER_GRAY)) order = ORDER_GRAY;
    else if (src->BitsPerPixel <= 8 || src->Order == ORDER_GRAY || (order == ORDER_BGR_ALT && bits != 24 && bits != 48))
      order = ORDER_BGR;
  }

  Reader* r = make_object<Reader>();
  if (!r) return RESULT_FAIL;
  ScopeExit fail([&] {
    free_producer(r->producer);
    destroy_object(r);
  });
  r->src = src;
  r->flags = flags;
  r->width = width;
  r->height = height;
  r->bits = bits;
  r->bytes = bytes_per_line(width, bits);
  r->last_row = -1;
  if (palette) {
    std::memcpy(r->pal.entries, palette, size_t(colors) * sizeof(RGBQUAD));
    r->pal.ptr = r->pal.entries;
    r->pal.count = colors;
  } else if (bits <= 8 && bits == src->BitsPerPixel) {
    VK_TRY(r->pal.of(src));
  }
  if (flags & RESIZE_READ_KEEP_ROWS) {
    if (!r->kept.allocate(size_t(r->bytes) * uint32_t(height)) || !r->made.allocate(size_t(height), true))
      return RESULT_FAIL;
  }
  const Output o{width, height, bits, order, r->bytes, r->pal.ptr, r->pal.colors(bits), src->DitheringMethod};
  VK_TRY(make_producer(&r->producer, src, reader, user, o, method_for(size_flags, src, bits, width, height)));
  if (allocated(src)) {
    r->lock_was = V_LockBitmap(src);
    r->locked = true;
  }
  r->mark = sizeof(Reader);
  fail.dismiss();
  *state = r;
  return RESULT_OK;
}

Reader* reader_of(void* state) {
  auto* r = static_cast<Reader*>(state);
  return r && r->mark == sizeof(Reader) ? r : nullptr;
}

int32_t read_segment(void* state, uint8_t* buffer, int32_t row, int32_t column, int32_t count) {
  Reader* r = reader_of(state);
  if (!r || !buffer || row < 0 || row >= r->height || column < 0 || column >= r->width || count < 1)
    return RESULT_BAD_PARAMETER;
  if ((r->flags & RESIZE_READ_IN_ORDER) && row < r->last_row) return RESULT_BAD_PARAMETER;
  count = std::min(count, r->width - column);
  const uint8_t* line;
  if (r->kept && r->made[size_t(row)]) {
    line = r->kept.get() + size_t(r->bytes) * uint32_t(row);
  } else {
    VK_TRY(produce_row(r->producer, row, &line));
    if (r->kept) {
      uint8_t* k = r->kept.get() + size_t(r->bytes) * uint32_t(row);
      std::memcpy(k, line, r->bytes);
      r->made[size_t(row)] = 1;
    }
  }
  r->last_row = row;
  const int32_t bits = r->bits;
  const size_t n = size_t((uint64_t(count) * uint32_t(bits) + 7) / 8);
  if (bits >= 8 && bits != 12) {
    std::memcpy(buffer, line + size_t(column) * size_t(bits / 8), n);
  } else {
    std::memset(buffer, 0, n);
    if (bits == 12)
      for (int32_t i = 0; i < count; ++i) put_gray12_pixel(buffer, uint32_t(i), gray12_pixel(line, uint32_t(column + i)));
    else
      copy_bits(buffer, 0, line, uint64_t(column) * uint32_t(bits), uint64_t(count) * uint32_t(bits));
  }
  return int32_t(n);
}

int32_t stop_reader(void* state) {
  Reader* r = reader_of(state);
  if (!r) return RESULT_BAD_PARAMETER;
  if (r->locked) V_UnlockBitmap(r->src, r->lock_was);
  free_producer(r->producer);
  r->mark = 0;
  destroy_object(r);
  return RESULT_OK;
}

}  // namespace
}  // namespace vk::resize

using namespace vk;

extern "C" {

VK_API int32_t VK_CALL V_SizeBitmap(BitmapHandle* bitmap, int32_t width, int32_t height, uint32_t flags) {
  return api_call([&] { return resize::size_bitmap(bitmap, width, height, flags); });
}

VK_API int32_t VK_CALL V_ResizeBitmapExt(BitmapHandle* source, BitmapHandle* destination, uint32_t flags) {
  return api_call([&] { return resize::resize_into(source, destination, flags); });
}

VK_API int32_t VK_CALL V_ResizeBitmap(BitmapHandle* source, BitmapHandle* destination) {
  return api_call([&] { return resize::resize_into(source, destination, SIZE_NEAREST); });
}

VK_API int32_t VK_CALL V_StartResizeBitmap(BitmapHandle* source, int32_t width, int32_t height,
                                           int32_t bitsPerPixel, const RGBQUAD* palette, int32_t colors,
                                           uint32_t flags, ResizeRowReader reader, intptr_t userData,
                                           void** state) {
  return api_call([&] {
    return resize::start_reader(source, width, height, bitsPerPixel, palette, colors, flags, reader, userData, state);
  });
}

VK_API int32_t VK_CALL V_GetResizedRowCol(void* state, uint8_t* buffer, int32_t row, int32_t column, int32_t count) {
  return api_call([&] { return resize::read_segment(state, buffer, row, column, count); });
}

VK_API int32_t VK_CALL V_StopResizeBitmap(void* state) {
  return api_call([&] { return resize::stop_reader(state); });
}

}  // extern "C"
