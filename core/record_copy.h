// record_copy.h - the record duplicate and the row copy between two bitmap
// records (the body of V_CopyBitmapData), for the storage code that rebuilds
// a bitmap and for every copy above it.
#pragma once

#include "vkkrn.h"

namespace vk {

// Copies every row of src into dst: both allocated, same width, height, depth
// and row size (RESULT_NO_BITMAP / RESULT_BAD_PARAMETER otherwise).  Compressed
// to compressed moves run lists; flat to flat with no status callback is one
// copy.  Reports progress through the copy status callback.
int32_t copy_bitmap_data(BitmapHandle* dst, BitmapHandle* src);

// Fills n (a zeroed scratch record) as a duplicate of src with new
// dimensions: src's storage kind, view perspective, resolutions and order;
// src's palette and region shared, its colour count, playback settings as
// they stand, storage of the same kind when allocate is set, the gray
// parameters when the depth is kept, the paint table.  The geometry
// duplicate adds own palettes, own regions and colour translation on top.
int32_t duplicate_record(BitmapHandle* n, BitmapHandle* src, int32_t width, int32_t height, int32_t bits,
                         bool allocate);

}  // namespace vk
