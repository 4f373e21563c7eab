// compressed.h - compressed 1-bit storage (memory type 768): the row table,
// the row heap and the run-length coder, as used by storage and row access.
//
// Rows are kept as lists of 16-bit runs alternating from 0-bits; see
// compress.cpp for the heap layout.  Row access calls these for
// BITMAP_COMPRESSED bitmaps; they return the same values as the row calls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vkkrn.h"

namespace vk::cmp {

// Builds the row table (every row empty) and an empty heap; Data = table.
int32_t allocate(BitmapHandle* b);
// Frees heap, blank template, work buffer and row table.
void free_storage(BitmapHandle* b);
// Compressed part of V_ChangeBitmapHeight.
int32_t change_height(BitmapHandle* b, int32_t new_height);

// V_GetBitmapRowCol / V_PutBitmapRowCol on compressed storage (expanded form).
int32_t read(BitmapHandle* b, void* buffer, uint32_t row, int32_t column, int32_t byte_count);
int32_t write(BitmapHandle* b, const void* buffer, uint32_t row, int32_t column, int32_t byte_count);
// GetPixelBytes on compressed storage: one byte holding the 8 pixels from
// column & ~7.
int32_t pixel_byte(BitmapHandle* b, uint8_t* out, uint32_t row, int32_t column);

// Row transfer in compressed form (copies that never expand a row): a record
// is a 32-bit run count followed by the runs.  read_record returns the
// record's byte length or a negative result; capacity must be at least
// 2 * Width + 6 bytes.
int32_t read_record(BitmapHandle* b, uint32_t row, void* record, size_t capacity);
int32_t write_record(BitmapHandle* b, uint32_t row, const void* record);

// Current byte size of the row heap (what Size holds).
uint32_t heap_size(const BitmapHandle* b);

}  // namespace vk::cmp

namespace vk::cmp {
// Sum of the stored (compressed) lengths of all Height rows, in bytes: what
// V_UpdateBitmapSize puts in Size for compressed storage.
uint32_t stored_size(const BitmapHandle* b);
}  // namespace vk::cmp
