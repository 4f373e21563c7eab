// rows.cpp - row access: bytes between a caller's buffer and the stored rows
// of any storage kind, with the one-row cache of flat storage.
//
// Requests may run past the end of a row into the following rows (and across
// tile borders); they may not run past the end of the storage: in memory
// that would reach memory the bitmap does not own, on disk it would grow the
// temp file, so such a request is refused with RESULT_BAD_PARAMETER before a
// byte moves, on every storage kind.
#include <climits>
#include <cstring>

#include "compressed.h"
#include "core.h"
#include "storage.h"
#include "tiles.h"

namespace vk::storage {
namespace {

// Row cache: an addition for the neighbouring rows, a product otherwise.
inline void update_cache(BitmapHandle* b, uint32_t row) {
  const auto cached = static_cast<uint32_t>(b->CachedRow);
  if (row != cached) {
    if (row == cached + 1)
      b->CachedRowOffset += b->BytesPerLine;
    else if (row == cached - 1)
      b->CachedRowOffset -= b->BytesPerLine;
    else
      b->CachedRowOffset = row * b->BytesPerLine;
    b->CachedRow = static_cast<int32_t>(row);
  }
}

// Bytes of flat in-memory storage the record owns.
inline uint64_t flat_limit(const BitmapHandle* b) {
  const uint64_t rows = static_cast<uint64_t>(b->Height > 0 ? b->Height : 0) * b->BytesPerLine;
  return rows < b->Size ? rows : b->Size;
}

enum class Dir { get, put };

template <Dir D>
int32_t flat_transfer(BitmapHandle* b, void* buffer, uint32_t row, uint64_t column_bytes, uint32_t count,
                      int32_t short_code) {
  // The cache is kept as the record describes it; the position itself is
  // the full product, so a row far outside the storage cannot wrap around
  // into it.
  update_cache(b, row);
  const uint64_t start = static_cast<uint64_t>(row) * b->BytesPerLine + column_bytes;
  // Memory past the limit is not the bitmap's, and on disk a write there
  // would grow the temp file without bound.
  const uint64_t limit = flat_limit(b);
  if (start > limit || count > limit - start) return RESULT_BAD_PARAMETER;
  if (b->Flags & BITMAP_IN_MEMORY) {
    if (!b->Data) return RESULT_NO_BITMAP;
    uint8_t* p = static_cast<uint8_t*>(b->Data) + start;
    if constexpr (D == Dir::get)
      std::memcpy(buffer, p, count);
    else
      std::memcpy(p, buffer, count);
    return static_cast<int32_t>(count);
  }
  if (b->Flags & BITMAP_ON_DISK) {
    const auto f = reinterpret_cast<VK_FILE>(b->StorageHandle);
    if (start > INT32_MAX || V_OsSeek(f, static_cast<int32_t>(start), VK_SEEK_SET, 0) != static_cast<int32_t>(start))
      return RESULT_SEEK_FAILED;
    const int32_t n = D == Dir::get ? V_OsRead(f, buffer, static_cast<int32_t>(count), 0)
                                    : V_OsWrite(f, buffer, static_cast<int32_t>(count), 0);
    if (n < 0) return D == Dir::get ? RESULT_READ_FAILED : RESULT_WRITE_FAILED;
    if (short_code != 0 && static_cast<uint32_t>(n) != count) return short_code;
    return n;
  }
  return RESULT_FAIL;
}

template <Dir D>
int32_t row_transfer(BitmapHandle* b, void* buffer, uint32_t row, int32_t column, int32_t count) {
  if (!b || !buffer || column < 0 || count < 0) return RESULT_BAD_PARAMETER;
  const uint32_t flags = b->Flags;
  if (!(flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  if (flags & BITMAP_COMPRESSED) {
    if constexpr (D == Dir::get)
      return cmp::read(b, buffer, row, column, count);
    else
      return cmp::write(b, buffer, row, column, count);
  }
  const uint64_t column_bytes = column_offset(b->BitsPerPixel, static_cast<uint32_t>(column));
  if (flags & BITMAP_TILED) {
    const uint64_t offset = static_cast<uint64_t>(row) * b->BytesPerLine + column_bytes;
    if constexpr (D == Dir::get)
      return tiles::read(b, offset, buffer, static_cast<uint32_t>(count));
    else
      return tiles::write(b, offset, buffer, static_cast<uint32_t>(count));
  }
  if (flags & BITMAP_SUPER_COMPRESSED) return RESULT_FAIL;
  return flat_transfer<D>(b, buffer, row, column_bytes, static_cast<uint32_t>(count), 0);
}

// Bytes that hold one pixel of a depth at a column.
inline uint32_t pixel_bytes(int32_t bits, uint32_t column) {
  switch (bits) {
    case 3: case 5: case 6: case 7:
      return (static_cast<uint64_t>(column) * static_cast<uint32_t>(bits)) % 8 + static_cast<uint32_t>(bits) > 8 ? 2 : 1;
    case 12: case 16: return 2;
    case 24: return 3;
    case 32: return 4;
    case 48: return 6;
    case 64: return 8;
    default: return 1;
  }
}

}  // namespace

int32_t get_pixel_bytes(BitmapHandle* b, void* buffer, uint32_t row, int32_t column) {
  if (!b || !buffer || column < 0) return RESULT_BAD_PARAMETER;
  const uint32_t flags = b->Flags;
  if (!(flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  if (flags & BITMAP_COMPRESSED) return cmp::pixel_byte(b, static_cast<uint8_t*>(buffer), row, column);
  const auto c = static_cast<uint32_t>(column);
  const uint64_t column_bytes = column_offset(b->BitsPerPixel, c);
  const uint32_t n = pixel_bytes(b->BitsPerPixel, c);
  if (flags & BITMAP_TILED) {
    const int32_t r = tiles::read(b, static_cast<uint64_t>(row) * b->BytesPerLine + column_bytes, buffer, n);
    return r < 0 ? r : RESULT_OK;
  }
  if (flags & BITMAP_SUPER_COMPRESSED) return RESULT_FAIL;
  // A pixel read short of its bytes is a failed read.
  const int32_t r = flat_transfer<Dir::get>(b, buffer, row, column_bytes, n, RESULT_READ_FAILED);
  return r < 0 ? r : RESULT_OK;
}

}  // namespace vk::storage

using vk::storage::Dir;
using vk::storage::row_transfer;

extern "C" {

VK_API int32_t VK_CALL V_GetBitmapRow(BitmapHandle* bitmap, void* buffer, uint32_t row, int32_t byteCount) {
  return vk::api_call([&] { return row_transfer<Dir::get>(bitmap, buffer, row, 0, byteCount); });
}

VK_API int32_t VK_CALL V_PutBitmapRow(BitmapHandle* bitmap, const void* buffer, uint32_t row, int32_t byteCount) {
  return vk::api_call(
      [&] { return row_transfer<Dir::put>(bitmap, const_cast<void*>(buffer), row, 0, byteCount); });
}

VK_API int32_t VK_CALL V_GetBitmapRowCol(BitmapHandle* bitmap, void* buffer, uint32_t row, int32_t column,
                                         int32_t byteCount) {
  return vk::api_call([&] { return row_transfer<Dir::get>(bitmap, buffer, row, column, byteCount); });
}

VK_API int32_t VK_CALL V_PutBitmapRowCol(BitmapHandle* bitmap, const void* buffer, uint32_t row, int32_t column,
                                         int32_t byteCount) {
  return vk::api_call(
      [&] { return row_transfer<Dir::put>(bitmap, const_cast<void*>(buffer), row, column, byteCount); });
}

}  // extern "C"
