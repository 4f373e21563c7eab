// codec_internal.h - what the format codecs share (not for the program).
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "image_io.h"
#include "streams.h"

namespace vkimg::codec {

[[noreturn]] inline void fail(const std::string& name, const std::string& what) { throw IoError(name + ": " + what); }

inline uint16_t rd16le(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t rd32le(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

std::vector<Colour> gray_ramp(int bits);
// Gray level of a colour on 8-bit channels, the library's formula.
inline int gray_level(int r, int g, int b) { return (5 * g + 2 * r + b + 4) / 8; }

// In 64 bits: resolutions from a file may be anything a 32-bit field holds.
inline int dpi_from_ppm(uint32_t ppm) { return static_cast<int>((static_cast<uint64_t>(ppm) * 254 + 5000) / 10000); }
inline uint32_t ppm_from_dpi(int dpi) {
  if (dpi <= 0) return 0;
  const uint64_t ppm = (static_cast<uint64_t>(dpi) * 10000 + 127) / 254;
  return ppm > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(ppm);
}

// Reads n bytes of raster that begin in row `row` (0-based) of `height`;
// a short read is an error naming the row.
inline void read_raster(InStream& in, uint8_t* dst, size_t n, int row, int height) {
  if (in.read_exact(dst, n)) return;
  if (!in.error().empty()) fail(in.name(), "read error: " + in.error());
  fail(in.name(), "truncated: pixel data ends in row " + std::to_string(row + 1) + " of " + std::to_string(height));
}

// Refuses geometry a header claims beyond what the program handles, before
// anything is allocated.
void check_size(const std::string& name, int64_t width, int64_t height, int bits);

// Palette index x of a packed row (bits <= 8).
inline uint32_t index_in_row(const uint8_t* row, int bits, int x) {
  if (bits == 8) return row[x];
  const size_t bit = static_cast<size_t>(x) * static_cast<size_t>(bits);
  const unsigned shift = static_cast<unsigned>(bit % 8);
  unsigned v = static_cast<unsigned>(row[bit / 8]) << 8;
  if (shift + static_cast<unsigned>(bits) > 8) v |= row[bit / 8 + 1];
  return (v >> (16 - shift - static_cast<unsigned>(bits))) & ((1u << bits) - 1);
}

// Indices of a row repacked to another depth (values must fit); dst zeroed first.
void repack_row(const uint8_t* src, int src_bits, uint8_t* dst, int dst_bits, int width);

// One row as 8-bit (wide = false) or big-endian 16-bit (wide = true) red,
// green, blue: what PPM holds.  Common layouts take a direct path.
void row_to_rgb(const ImageInfo& info, const uint8_t* row, uint8_t* out, bool wide);
// One row as 8-bit blue, green, red (and alpha when alpha is set).
void row_to_bgr8(const ImageInfo& info, const uint8_t* row, uint8_t* out, bool alpha);

// The format codecs.
std::unique_ptr<Decoder> open_png(InStream& in);
std::unique_ptr<Decoder> open_pnm(InStream& in);
std::unique_ptr<Decoder> open_bmp(InStream& in, const Progress& progress);
std::unique_ptr<Decoder> open_jpeg(InStream& in);
std::unique_ptr<Decoder> open_tiff(InStream& in);
std::unique_ptr<Encoder> jpeg_encoder(OutStream& out, const ImageInfo& info, const EncodeOptions& options,
                                      std::vector<std::string>* notes);
std::unique_ptr<Encoder> tiff_encoder(OutStream& out, const ImageInfo& info, const EncodeOptions& options,
                                      std::vector<std::string>* notes);
std::unique_ptr<Encoder> png_encoder(OutStream& out, const ImageInfo& info, std::vector<std::string>* notes);
std::unique_ptr<Encoder> pnm_encoder(OutStream& out, Format format, const ImageInfo& info,
                                     std::vector<std::string>* notes);
std::unique_ptr<Encoder> bmp_encoder(OutStream& out, const ImageInfo& info, std::vector<std::string>* notes);

}  // namespace vkimg::codec
