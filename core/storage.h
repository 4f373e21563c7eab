// storage.h - internal storage entry points shared by storage, row access and
// the operations that rebuild a bitmap in another memory type.
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk::storage {

// GetPixelBytes: the bytes that hold one pixel (1 to 8 of them) into buffer.
int32_t get_pixel_bytes(BitmapHandle* b, void* buffer, uint32_t row, int32_t column);

// Byte offset of column c for a depth (rounded down).
// 64-bit: a column near 2^31 of a deep pixel lies far beyond 4 GiB, and a
// truncated offset would land inside the storage.
inline uint64_t column_offset(int32_t bits, uint32_t c) {
  const uint64_t c64 = c;
  if (bits == 12) return c64 + c64 / 2;
  const bool listed = (bits >= 1 && bits <= 8) || bits == 16 || bits == 24 || bits == 32 || bits == 48 || bits == 64;
  return listed ? (c64 * static_cast<uint32_t>(bits)) / 8 : c64;
}

}  // namespace vk::storage
