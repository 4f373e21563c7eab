// rect.cpp - a rectangle of a bitmap copied into a new bitmap, in place
// (trim) or into another record.
//
// The rectangle is clipped against the source; the part of the destination
// the clipped area does not cover (a rectangle reaching past the source's
// edges) is 0.  Every destination row is written whole, so the destination
// never holds what its storage happened to contain.  Columns of 1 to 7 bits
// are moved bit-exactly, shifting when the bit offsets of source and
// destination within a byte differ; 12-bit pixels are moved one at a time
// (odd columns start inside a byte); deeper pixels are whole bytes.
#include <algorithm>
#include <cstring>

#include "dispatch.h"
#include "geometry.h"
#include "op.h"
#include "pixel_format.h"
#include "storage.h"

namespace vk {

// Copies n bits from src at bit sbit to dst at bit dbit (most significant
// bit first); the other bits of dst are kept.
void copy_bits(uint8_t* dst, uint64_t dbit, const uint8_t* src, uint64_t sbit, uint64_t n) {
  if (dbit % 8 == sbit % 8) {
    // Same offset within a byte: masked ends, whole bytes between.
    uint8_t* d = dst + dbit / 8;
    const uint8_t* s = src + sbit / 8;
    const unsigned off = unsigned(dbit % 8);
    if (off) {
      const unsigned take = unsigned(std::min<uint64_t>(n, 8 - off));
      const uint8_t mask = uint8_t(((1u << take) - 1) << (8 - off - take));
      *d = uint8_t((*d & ~mask) | (*s & mask));
      ++d, ++s;
      n -= take;
    }
    std::memcpy(d, s, size_t(n / 8));
    if (n % 8) {
      const uint8_t mask = uint8_t(0xFF00u >> (n % 8));
      d[n / 8] = uint8_t((d[n / 8] & ~mask) | (s[n / 8] & mask));
    }
    return;
  }
  while (n) {
    const unsigned doff = unsigned(dbit % 8), soff = unsigned(sbit % 8);
    const unsigned take = unsigned(std::min<uint64_t>(n, 8 - doff));
    const uint8_t* s = src + sbit / 8;
    const uint32_t window = (uint32_t(s[0]) << 8) | (soff + take > 8 ? s[1] : 0u);
    const uint32_t v = (window >> (16 - soff - take)) & ((1u << take) - 1);
    const unsigned shift = 8 - doff - take;
    uint8_t* d = dst + dbit / 8;
    *d = uint8_t((*d & ~(((1u << take) - 1) << shift)) | (v << shift));
    dbit += take, sbit += take, n -= take;
  }
}

namespace {

// Moves `count` pixels: source row segment starting at pixel `from` (the
// segment buffer begins at the byte that holds it), into the destination
// row at pixel `to`.
struct Segment {
  uint32_t first_column;  // the column the segment buffer starts at
  uint32_t skip_bits;     // bits before pixel `from` in the buffer's first byte
};
Segment segment_for(int32_t bits, uint32_t from) {
  if (bits == 12) return {from & ~1u, 0};
  if (bits < 8) return {from, uint32_t((uint64_t{from} * uint32_t(bits)) % 8)};
  return {from, 0};
}

// Pixels narrower than a byte or 12 bits wide (whole-byte pixels need no
// segment: they are read straight into place).
void move_columns(const uint8_t* seg, const Segment& sg, uint32_t from, uint8_t* row, uint32_t to, uint32_t count,
                 int32_t bits) {
  if (bits < 8)
    copy_bits(row, uint64_t{to} * uint32_t(bits), seg, sg.skip_bits, uint64_t{count} * uint32_t(bits));
  else
    for (uint32_t i = 0; i < count; ++i) put_gray12_pixel(row, to + i, gray12_pixel(seg, from - sg.first_column + i));
}

struct Clip {
  int32_t l, t, w, h;
};
// The part of the rectangle inside the source; false when empty.
bool clip(const BitmapHandle* src, int32_t left, int32_t top, int32_t width, int32_t height, Clip& c) {
  const int64_t l = std::max<int64_t>(left, 0), t = std::max<int64_t>(top, 0);
  const int64_t w = std::min<int64_t>(int64_t{left} + width, src->Width) - l;
  const int64_t h = std::min<int64_t>(int64_t{top} + height, src->Height) - t;
  if (w <= 0 || h <= 0) return false;
  c = Clip{int32_t(l), int32_t(t), int32_t(w), int32_t(h)};
  return true;
}

int32_t copy_rect(BitmapHandle* dst, BitmapHandle* src, int32_t left, int32_t top, int32_t width, int32_t height,
                  bool typed, int32_t memory_type) {
  if (!allocated(src) || !sound_geometry(*src)) return RESULT_BAD_PARAMETER;
  Clip c;
  if (width < 1 || height < 1 || !clip(src, left, top, width, height, c)) return RESULT_BAD_PARAMETER;
  const int32_t bits = src->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_BITS_PER_PIXEL;
  const bool in_place = !dst || dst == src;

  op::Scratch out;
  VK_TRY(new_copy_record(out, src, width, height, typed, memory_type));
  if (auto hook = reinterpret_cast<VK_REGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(2)))) {
    // The destination takes the source's region moved by the rectangle's
    // origin in place of the duplicate's.
    out->Region = nullptr;
    const int32_t r = hook(out.get(), src, -left, -top);
    if (r != RESULT_OK) {
      out->Region = nullptr;
      return r;
    }
  }

  const Segment sg = segment_for(bits, uint32_t(c.l));
  // The source bytes that hold the clipped columns.
  const uint64_t start = storage::column_offset(bits, sg.first_column);
  const uint64_t end = (uint64_t(c.l + c.w) * uint32_t(bits) + 7) / 8;
  const int32_t seg_count = int32_t(end - start);
  const uint32_t dbpl = out->BytesPerLine;
  Buffer<uint8_t> seg(size_t(seg_count) + 2), row(dbpl);
  if (!seg || !row) return RESULT_FAIL;

  // Whole-byte pixels are read straight into the destination row; only the
  // bytes the clipped columns do not fill whole are cleared first.
  const bool bytes = bits >= 8 && bits != 12;
  const uint32_t to = uint32_t(c.l - left);
  const uint64_t first_bit = uint64_t{to} * uint32_t(bits), end_bit = first_bit + uint64_t(c.w) * uint32_t(bits);
  const size_t head = size_t(first_bit / 8) + (bytes ? 0 : 1), tail = size_t((end_bit - 1) / 8) + (bytes ? 1 : 0);
  op::CacheGuard cache(src);
  {
    BitmapLock lock_src(src), lock_dst(out.get());
    uint8_t* const direct = flat_memory(out.get()) ? static_cast<uint8_t*>(out->Data) : nullptr;
    VK_TRY(op::for_each_row(op::Rows{height, true}, [&](int32_t y) -> int32_t {
      uint8_t* const drow = direct ? direct + size_t(y) * dbpl : row.get();
      const int64_t sy = int64_t{top} + y;
      if (sy < c.t || sy >= int64_t{c.t} + c.h) {
        std::memset(drow, 0, dbpl);
      } else {
        std::memset(drow, 0, head);
        std::memset(drow + tail, 0, dbpl - tail);
        if (bytes) {
          const int32_t got =
              V_GetBitmapRowCol(src, drow + first_bit / 8, uint32_t(sy), c.l, int32_t(end_bit / 8 - first_bit / 8));
          if (got < 0) return got;
        } else {
          const int32_t got = V_GetBitmapRowCol(src, seg.get(), uint32_t(sy), int32_t(sg.first_column), seg_count);
          if (got < 0) return got;
          move_columns(seg.get(), sg, uint32_t(c.l), drow, to, uint32_t(c.w), bits);
        }
      }
      if (direct) return RESULT_OK;
      const int32_t put = V_PutBitmapRow(out.get(), drow, uint32_t(y), int32_t(dbpl));
      return put < 0 ? put : int32_t{RESULT_OK};
    }));
  }
  cache.dismiss();
  // In place the source goes whole (its region lives on, moved, in the copy).
  if (in_place)
    op::hand_over(out, src, src);
  else
    op::hand_over(out, dst);
  return RESULT_OK;
}

int32_t trim(BitmapHandle* b, int32_t left, int32_t top, int32_t width, int32_t height) {
  if (!allocated(b)) return RESULT_BAD_PARAMETER;
  Clip c;
  if (!clip(b, left, top, width, height, c)) return RESULT_BAD_PARAMETER;
  return copy_rect(b, b, c.l, c.t, c.w, c.h, false, 0);
}

}  // namespace
}  // namespace vk

extern "C" {

VK_API int32_t VK_CALL V_CopyBitmapRect(BitmapHandle* destination, BitmapHandle* source, int32_t left, int32_t top,
                                        int32_t width, int32_t height) {
  return vk::api_call([&] { return vk::copy_rect(destination, source, left, top, width, height, false, 0); });
}

VK_API int32_t VK_CALL V_CopyBitmapRect2(BitmapHandle* destination, BitmapHandle* source, int32_t left, int32_t top,
                                         int32_t width, int32_t height, int32_t memoryType) {
  return vk::api_call([&] { return vk::copy_rect(destination, source, left, top, width, height, true, memoryType); });
}

VK_API int32_t VK_CALL V_TrimBitmap(BitmapHandle* bitmap, int32_t left, int32_t top, int32_t width, int32_t height) {
  return vk::api_call([&] { return vk::trim(bitmap, left, top, width, height); });
}

}  // extern "C"
