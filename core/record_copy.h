// record_copy.h - the row copy between two bitmap records (the body of
// V_CopyBitmapData), for the storage code that rebuilds a bitmap.
#pragma once

#include "vkkrn.h"

namespace vk {

// Copies every row of src into dst: both allocated, same width, height, depth
// and row size (RESULT_NO_BITMAP / RESULT_BAD_PARAMETER otherwise).  Compressed
// to compressed moves run lists; flat to flat with no status callback is one
// copy.  Reports progress through the copy status callback.
int32_t copy_bitmap_data(BitmapHandle* dst, BitmapHandle* src);

}  // namespace vk
