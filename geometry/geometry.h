// geometry.h - internals the geometry operations share: the integer sine,
// the row mirror, the row workers behind flips and half turns, and the
// quarter-turn transposition.
//
// Orientation: a quarter turn in direction 1 takes the pixel at column x,
// row y of a W x H bitmap to column H - 1 - y, row x of the H x W result
// (the turn a change of view perspective by 90 performs); direction 0 is its
// inverse, to column y, row W - 1 - x.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "core.h"
#include "op.h"

namespace vk {

// A new record for a copy of src with the given size: storage of the
// source's kind (typed false) or of memory_type (typed true), its own
// palette, region and gray parameters.  What a failure leaves in n is
// released by the Scratch.
int32_t new_copy_record(op::Scratch& n, BitmapHandle* src, int32_t width, int32_t height, bool typed,
                        int32_t memory_type);

// A new record of b's storage kind with the given size (DUP_ALLOCATE) that
// shares b's palette and region until the commit and keeps its dithering
// method and gray bit range: the result of an operation that replaces b.
int32_t dup_shared(op::Scratch& out, BitmapHandle* b, int32_t width, int32_t height);

// Sine and cosine x 16384 of an angle 0..36000 (hundredths of a degree).
int32_t sine(int32_t angle);
int32_t cosine(int32_t angle);

// Mirrors one packed row of `width` pixels in place, left to right; bits of
// the last byte after the last pixel are kept.  No byte after the row's
// (width x bits + 7) / 8 is touched.  Depths as for bitmaps.
using MirrorFn = void (*)(uint8_t* row, uint32_t width);
MirrorFn mirror_kernel(int32_t bits);  // null for a depth bitmaps do not have

// Two distinct rows of `width` pixels each mirrored and then exchanged
// (the half turn of a pair of rows): its own inverse.  Whole-byte pixels
// move in one pass; bytes after the last pixel may stay where they were.
using ExchangeFn = void (*)(uint8_t* a, uint8_t* b, uint32_t width);
ExchangeFn exchange_kernel(int32_t bits);  // null for a depth bitmaps do not have

// A kernel table by bits per pixel (0..64, null where bitmaps have no such
// depth): of(B) is called as of.template operator()<B>() for each depth.
template <class Fn, class Of>
constexpr std::array<Fn, 65> by_depth(Of of) {
  std::array<Fn, 65> t{};
  [&]<int... B>(std::integer_sequence<int, B...>) {
    ((t[B] = of.template operator()<B>()), ...);
  }(std::integer_sequence<int, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64>{});
  return t;
}

// The stored rows in reverse order (flip), each row mirrored (mirror), or
// both (a half turn).  Flat memory is changed in place and a stopped or
// cancelled run undoes what it did; other storage is built in a new record
// committed at the end.  Progress runs from `from` to `to` over one step per
// row pair (flip) or per row.  RESULT_NO_BITMAP for an unallocated bitmap.
int32_t transform_rows(BitmapHandle* b, bool flip, bool mirror, int32_t from = 0, int32_t to = 100);

// Transposes h rows of w pixels (src, signed stride) into w rows of h pixels
// (dst, signed stride): destination row r, column c = source row c, column
// r.  Negative strides give the other turns.  Rows of 1 to 7 bits start at
// bit 0 of their first byte.
void transpose(const uint8_t* src, intptr_t src_stride, uint8_t* dst, intptr_t dst_stride, uint32_t w, uint32_t h,
               int32_t bits);

// Compressed 1-bit bitmaps whose expanded rows would take more bytes than
// this are turned from their runs directly (smaller ones through row
// access).  Tests lower it to run that path on small bitmaps.
extern uint64_t compressed_turn_limit;
// Quarter turns of storage other than flat memory read the source in bands
// of columns holding about this many bytes.  Tests lower it to run many
// bands on small bitmaps.
extern uint32_t turn_band_bytes;

// The quarter turn of b into `out` (a new record, not yet committed; it
// shares b's palette and region).  One progress step per destination row.
int32_t turn_quarter(BitmapHandle* b, int32_t direction, op::Scratch& out, Progress& progress);

// The quarter turn of a bitmap in place (V_RotateBitmap90), progress from
// `from` to `to`, the region hook told of the turn, one commit.
int32_t rotate90(BitmapHandle* b, int32_t direction, int32_t from, int32_t to);

// The turn by any angle that no exact path takes: a is the normalised turn
// (0 <= a < 36000, the negative of the caller's angle), angle the caller's
// own (for the region hook).  Progress from `from` to `to`.
int32_t turn_any(BitmapHandle* b, int32_t a, int32_t angle, uint32_t flags, uint32_t fill, int32_t from, int32_t to);

// Fills every pixel of b with the stored value of `color` (V_FillBitmap).
int32_t fill_bitmap(BitmapHandle* b, uint32_t color);

}  // namespace vk
