// best_palette.h - the palette method that minimises the colour error a
// viewer sees, beside the exact optimiser (optimize.h), and the row reading
// both it and colour resolution share.
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk::best {

// How a bitmap's rows read as colour through row conversion: the source
// palette (the bitmap's own entries, or its gray lookup table when that is
// in force) and the conversion flags of its colour order.
struct RowColours {
  RGBQUAD entries[256];
  const RGBQUAD* palette = nullptr;
  uint32_t flags = 0;
};
void row_colours(BitmapHandle& bitmap, RowColours& out);

}  // namespace vk::best
