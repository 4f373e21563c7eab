// resize.h - internals of the resize engine shared by its files: the
// dimension rule, the nearest-neighbour step of one row, and the row
// producer behind the whole-bitmap calls and the row-segment reader.
//
// Nearest-neighbour positions never drift: a step is a whole part plus a
// remainder carried against a denominator, so destination pixel i takes
// source pixel floor((acc + i * (step * den + rem)) / den).  Area averaging
// weighs source pixels in hundredths of a pixel with integer sums; only the
// spline of the smooth method is single-precision floating point, evaluated
// in a fixed order (the build keeps float arithmetic at float width).
#pragma once

#include <cstdint>

#include "core.h"

namespace vk::resize {

// New dimensions from old ones: a 0 side follows the other with the aspect
// ratio kept (multiply-then-divide, rounded to nearest).  False for null
// pointers, negative or two 0 sides, or a side that comes out below 1.
bool dimension_rule(int32_t* width, int32_t* height, int32_t old_width, int32_t old_height);

// The nearest-neighbour scan-line step (see V_GetResizedScanLine): `expand`
// and the reverse walk as that call documents.  Nothing for other depths.
void scan_line(int32_t bits, int32_t dst_bytes, int32_t start_x, int32_t step, int32_t acc, int32_t rem,
               const uint8_t* src, uint8_t* dst, int32_t count, int32_t den, bool expand);
void reverse_scan_line(int32_t bits, int32_t start_x, int32_t step, int32_t acc, int32_t rem, const uint8_t* src,
                       uint8_t* dst, int32_t count, int32_t den, bool expand);

// The palette entries of a bitmap of up to 8 bits (ColorCount of them, at
// most 256) into out; *count 0 when it has none.  RESULT_FAIL when a palette
// it has cannot be read.
int32_t read_palette(BitmapHandle* b, RGBQUAD* out, int32_t* count);

// The step along one axis of the sizing routine: quotient and remainder of
// source over destination length, with an exact enlargement (or equal
// lengths) turned into quotient 0 and remainder = destination length, so
// that every step carries.
struct Step {
  int32_t q, r, den;
  // The source position of destination position i.
  int64_t at(int64_t i) const { return i * q + (i * r) / den; }
};
Step step_for(int32_t src_len, int32_t dst_len);

// Methods of the row producer.
enum class Method : uint8_t { nearest, density, average, smooth };

// Where the producer's source rows come from: a bitmap, or a caller's
// reader that fills `buffer` with stored row `row` (bytes as the record's
// BytesPerLine) and returns a byte count or a negative result.
using RowReader = ResizeRowReader;

// What the producer makes: rows of `width` pixels of `bits` (order and
// palette for conversion and dithering), `height` rows.
struct Output {
  int32_t width, height, bits, order;
  uint32_t bytes_per_line;  // row buffers hold at least this
  const RGBQUAD* palette;  // borrowed; null: none
  int32_t colors;
  int32_t dither_method;
};

class Producer;
// Makes a producer for `src` (its record describes the rows; `reader`, when
// set, supplies them).  RESULT_FAIL when memory runs out.
int32_t make_producer(Producer** out, BitmapHandle* src, RowReader reader, intptr_t user, const Output& o,
                      Method m);
void free_producer(Producer* p);
// Destination row y (0 .. height - 1, any order) in `*row` (valid until the
// next call); rows are packed for the output depth with the output's
// BytesPerLine.  Row read errors are returned as they come.
int32_t produce_row(Producer* p, int32_t y, const uint8_t** row);
// The method chosen by size flags (1, 2, 4 tested in that order) for a
// source and destination.
Method method_for(uint32_t flags, const BitmapHandle* src, int32_t src_bits_out, int32_t dst_w, int32_t dst_h);

}  // namespace vk::resize
