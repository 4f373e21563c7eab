// dither.h - the dithering engine's object (internal view).
//
// V_StartDitheringExt builds one DitherContext, attaches it to the bitmap's
// DitherState, V_DitherLine turns one source row into one row of palette
// indices, V_StopDithering frees it.  The whole object (header, error rows
// and, in MATCH_OWN_TABLE mode, the 32768-cell match table) is a single
// V_Calloc'd block, so a start either fully succeeds or leaves nothing.
#pragma once

#include <cstdint>

#include "pixel_format.h"
#include "vkkrn.h"

namespace vk {

// How a colour becomes a destination index; chosen once at start.
enum DitherMatchMode : int32_t {
  MATCH_OWN_TABLE = 0,   // arbitrary palette, engine-owned 5-5-5 cell table
  MATCH_USER_TABLE = 1,  // arbitrary palette, caller's table (filled in place)
  MATCH_FIXED_2 = 2,
  MATCH_FIXED_4 = 3,
  MATCH_FIXED_8 = 4,
  MATCH_FIXED_16 = 5,
  MATCH_FIXED_32 = 6,
  MATCH_FIXED_64 = 7,
  MATCH_FIXED_128 = 8,
  MATCH_FIXED_256 = 9,
  MATCH_FIXED_CUBE = 10,
};

// One destination entry that table matching may choose.  Laid out like an
// RGBQUAD whose reserved byte carries the palette index, so the list can be
// searched with V_FindPaletteIndex directly.
struct DitherMatchEntry {
  uint8_t blue, green, red, index;
};

struct DitherContext;
// Decodes one source row into RowRgb; chosen at start from depth and order.
using DitherDecodeFn = void (*)(DitherContext& c, uint8_t* in, int32_t width);
// Dithers the decoded row; chosen at start for (method, match mode).
using DitherRowFn = void (*)(DitherContext& c, uint8_t* out, int32_t width);

struct DitherContext {
  uint32_t RowCounter;       // lines dithered so far (ordered methods only)
  uint32_t ColorCount;       // destination entries, 1-256
  RGBQUAD SourcePalette[256];  // palette of sources of 1-8 bits
  RGBQUAD DestPalette[256];    // first ColorCount entries: the destination palette
  // Cells hold a palette index + 1 (0 = not resolved yet).  This is the
  // layout V_CreateUserMatchTable produces, so a caller's table and the
  // engine's own table are read the same way even when some palette entries
  // are excluded from matching.
  uint32_t* MatchTable;      // null in the fixed modes
  int32_t SourceBits;
  int32_t Method;
  int32_t MatchMode;
  uint32_t OutputBits;       // bits per output index; outside 1-8 nothing is written
  int32_t ErrorRowCount;     // 0-3
  uint32_t ErrorRowLength;   // width + 2 * margin, in int32 elements
  // Channel-major: red rows 0-2, green rows 0-2, blue rows 0-2.  Each row
  // holds weighted error numerators (weight * error, not yet divided).
  int32_t* ErrorRows[9];
  DitherMatchEntry MatchList[256];
  uint32_t MatchListCount;
  uint32_t GrayBits, GrayMask, GrayShift;

  // ---- engine-private ----
  size_t BlockSize;          // bytes of this whole block
  int32_t Width;             // row width fixed at start (error rows are sized for it)
  int32_t Margin;            // error-row margin on each side
  DitherRowFn Row;
  const uint8_t* Matrix;     // ordered methods: 8 x 8 threshold matrix
  // source reading
  DitherDecodeFn Decode;
  const RunCodec* Codec;     // the source layout's run codecs
  Rgb8* RowRgb;              // the decoded row, Width pixels (24-bit RGB: the caller's row)
  uint8_t* RowWork;          // indices or gray samples before they become RowRgb
  const uint8_t* RowGray;    // gray levels of the row, for sources of grays only
  int32_t Stride;            // bytes per pixel of the second colour space's rows
  const uint32_t* GrayLut;   // in force only with BITMAP_GRAY_FLAG
  uint32_t GrayLutLength;
  uint8_t GrayScale[256];    // v -> v * 255 / GrayMask for masks below 255
  // matching
  int32_t GrayMatchShift;    // modes 2/3: (2R + 5G + B + 4) >> 10 or >> 9
  int32_t PackShift[5];      // modes 4, 6-9: (R>>a)<<b | (G>>c)<<d | (B>>e)
};

// Offset added to each channel by the ordered methods for matrix value m.
int32_t dither_ordered_offset(int32_t mode, uint32_t outputBits, int32_t m);

}  // namespace vk
