// dib.h - the packed device-independent bitmap (DIB): one block holding an
// information header, an optional palette or three colour masks, and the
// pixel rows (4-byte aligned, bottom-up for a positive height).
//
// Everything in a DIB comes from outside the library, so the reader works
// on a byte count: every field is read only when it lies inside the bytes
// the caller vouches for, every size is computed in 64 bits and compared
// with them before a pixel is touched.  The block is refused whole or taken
// whole; nothing is allocated for a refused block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vkkrn.h"

namespace vk::dib {

// Header sizes: the core form (16-bit fields, 3-byte palette entries), the
// information form, and the two extended forms this library writes.
inline constexpr uint32_t kCoreHeader = 12, kInfoHeader = 40, kV4Header = 108, kV5Header = 124;
inline constexpr uint32_t kNone = 0, kBitFields = 3;  // compression codes read as pixels
inline constexpr uint32_t kSrgb = 0x73524742u;        // colour-space mark "sRGB"

constexpr uint32_t fourcc(char a, char b, char c, char d) {
  return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 | uint32_t(uint8_t(d)) << 24;
}

// How the colour masks of a bit-field DIB are turned into stored pixels.
enum class Masks : uint8_t {
  plain,     // already the bitmap's layout (5-5-5, or BGR bytes)
  swapped,   // 32-bit with red and blue exchanged: kept, read as ORDER_RGB
  fast565,   // 16-bit (0x8E00, 0x7E0, 0x1F): shift right, blue kept
  general,   // each field cut to 5 (16-bit) or 8 (32-bit) bits
};

// The planar and packed YUV layouts accepted.
enum class Video : uint8_t { none, yvu9, i420, yv12, nv12, yuy2, uyvy, yvyu };

// One field of a colour mask: (pixel >> shift) & mask, then widened to the
// full range (value * full / mask) when narrower than it.
struct Field {
  uint32_t shift, mask, full;
};

// What the header says, whatever its form, and what follows it.
struct Info {
  uint32_t header_size;
  int32_t width, height;   // height < 0: rows stored top-down
  uint32_t planes, bits, compression;
  int32_t x_ppm, y_ppm;    // pixels per metre
  uint32_t colors_used;
  bool core;               // 3-byte palette entries
  Video video;
  Masks masks;
  Field fields[3];         // red, green, blue (bit fields only)
  uint32_t palette_count;  // entries that become the bitmap's palette
  RGBQUAD palette[256];    // zeroed past palette_count
  uint64_t pixel_offset;   // from the header: after the palette or masks (after the header for video)
  uint64_t stride;         // bytes per stored row (video: of the luma plane)
  uint64_t pixel_bytes;    // bytes the pixels need
};

// Reads the header and what follows it from `available` bytes at `p`
// (SIZE_MAX when the caller vouches for the memory the header describes);
// the pixels must lie in those bytes too.  Result codes: RESULT_BAD_PARAMETER for zero or negative
// dimensions, RESULT_BAD_FORMAT for a header, palette, mask or pixel count
// that the bytes cannot hold or the library cannot read.
int32_t read_info(const uint8_t* p, size_t available, Info* out);

// The checks a DIB must pass to be stored as it is (compression none or bit
// fields, one plane, a bitmap depth); video layouts never pass.
int32_t check_storable(const Info& info);

// Pixels per metre to dots per inch (rounded) and back; 0 pixels per metre
// takes the screen's resolution on that axis.
int32_t dpi_of(int32_t ppm, bool horizontal);
int32_t ppm_of(int32_t dpi);

// Rewrites `pixels` pixels of a bit-field row in place into the bitmap's
// layout (Masks::fast565 and general; plain and swapped need nothing).
void rewrite_row(const Info& info, uint8_t* row, uint32_t pixels);

// The luma and chroma samples of a video frame: sample (x, y) of a plane
// is base[y * stride + x * step]; chroma is subsampled by 2^sx across and
// 2^sy down.  Packed layouts are planes whose samples interleave.
struct Planes {
  const uint8_t *y, *u, *v;
  uint64_t y_stride, c_stride;
  uint32_t y_step, c_step, sx, sy;
};
Planes planes_of(const Info& info, const uint8_t* bits);

// Row y of the frame (top first) as `width` 24-bit BGR pixels.
void video_row(const Planes& planes, uint32_t width, uint32_t y, uint8_t* bgr);

}  // namespace vk::dib
