// optimize.h - the optimised-palette quantiser, exposed to the colour
// resolution code and to tests.
//
// A histogram counts pixels per 5-5-5 colour cell (cell = r5 << 10 | g5 << 5 |
// b5).  The cells that occur are listed in order of first appearance; boxes
// partition that list into contiguous runs, one box per output colour.
#pragma once

#include <cstdint>

#include "pixel_format.h"
#include "vkkrn.h"

namespace vk::opt {

// No count exceeds this: reaching it halves every count first.
constexpr uint32_t kCountLimit = 32768;

struct Histogram {
  uint32_t* counts = nullptr;  // kColorCells counts (V_Calloc); becomes the match table
  uint16_t* cells = nullptr;   // kColorCells cell keys (V_Malloc), `used` of them valid
  uint32_t used = 0;

  Histogram() = default;
  Histogram(const Histogram&) = delete;
  Histogram& operator=(const Histogram&) = delete;
  ~Histogram();
  bool allocate();                  // false on allocation failure (nothing held)
  uint32_t* release_counts();       // hands the counts block over (caller frees with V_Free)

  // One pixel of cell `cell`.  A cell still at 0 is appended to the list; a
  // cell already at the limit first halves all counts, rounding up
  // ((c + 1) >> 1), so proportions hold and counts stay <= kCountLimit.
  void add(uint32_t cell) {
    uint32_t& c = counts[cell];
    if (c == 0) cells[used++] = static_cast<uint16_t>(cell);
    if (c >= kCountLimit) halve();
    ++c;
  }
  void halve();
};

inline uint32_t cell_of(uint32_t r, uint32_t g, uint32_t b) { return ((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3); }

// Adds every pixel of an allocated bitmap (all rows; the bitmap is locked for
// the pass).  Returns RESULT_OK or the row-read / conversion failure.
int32_t add_bitmap(Histogram& h, BitmapHandle* bitmap);

// Splits the histogram into at most n boxes and writes one palette entry per
// box, sorted.  *produced = entries written.  With table, the histogram's
// counts become the cell -> palette position + 1 table and are handed out
// through *table (the caller frees it with V_Free).  RESULT_FAIL when the
// box array cannot be allocated.
int32_t quantise(Histogram& h, uint32_t n, bool few_popular, RGBQUAD* palette, uint32_t* produced, uint32_t** table);

// Selection-exchange sort ascending by red, then green, then blue.  perm
// (optional, n entries) is permuted along with the entries; pass it filled
// with 0..n-1 to learn where each entry came from.
void sort_palette(RGBQUAD* palette, uint32_t n, uint32_t* perm);

}  // namespace vk::opt
