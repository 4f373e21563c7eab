// image_io.h - the command-line program's own image file codec.
//
// PNG (through libpng), binary PNM (P4, P5, P6) and BMP, read into and
// written from one in-memory picture whose rows use the library's pixel
// layouts, so that a picture moves into a bitmap with one row copy per row.
// The codec does not call the library; it only shares its row layouts.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace vkimg {

// Palette entry, laid out like the library's RGBQUAD (blue, green, red, reserved).
struct Colour {
  uint8_t b = 0, g = 0, r = 0, a = 0;
  friend bool operator==(const Colour&, const Colour&) = default;
};

// Colour orders, as the library numbers them.
inline constexpr int kOrderRgb = 0;
inline constexpr int kOrderBgr = 1;
inline constexpr int kOrderGray = 2;

// One picture, top row first.  Pixel layouts are those of the library:
//   bits 1, 2, 4, 8   palette indices, packed most significant bit first
//   bits 16           order 2: one little-endian 16-bit gray sample;
//                     order 0/1: 5-5-5 colour (order 1: red in bits 10-14)
//   bits 24, 32       8-bit channels in the order's sequence (32: then alpha)
//   bits 48, 64       little-endian 16-bit channels (64: then alpha)
// Rows are padded to a multiple of 4 bytes, exactly as a bitmap row.
struct Image {
  int width = 0;
  int height = 0;
  int bits = 0;
  int order = kOrderBgr;
  std::vector<Colour> palette;  // up to 2^bits entries, for bits <= 8
  int xdpi = 0, ydpi = 0;       // 0 = unknown
  std::vector<uint8_t> data;

  static size_t stride_for(int width, int bits) {
    return ((static_cast<size_t>(width) * static_cast<size_t>(bits) + 31) / 32) * 4;
  }
  size_t stride() const { return stride_for(width, bits); }
  uint8_t* row(int y) { return data.data() + static_cast<size_t>(y) * stride(); }
  const uint8_t* row(int y) const { return data.data() + static_cast<size_t>(y) * stride(); }

  // Sets the geometry and zero-fills the pixels (throws on absurd sizes).
  void allocate(int w, int h, int bpp, int colour_order);
  bool is_gray_ramp() const;  // palette = the 2^bits-entry black-to-white ramp
  bool palette_is_gray() const;
  uint32_t index_at(int x, int y) const;  // bits <= 8 only
  void set_index(int x, int y, uint32_t index);
};

enum class Format { png, pbm, pgm, ppm, pnm, bmp };

// A failure that names the file; the message is ready to print.
struct IoError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Largest picture the codec accepts: each side and the pixel bytes.  A
// corrupt header cannot make it allocate more than this.
inline constexpr int kMaxSide = 1 << 18;
inline constexpr uint64_t kMaxBytes = uint64_t(1) << 31;

// Format from the file name's extension (case-insensitive); throws IoError
// for an unknown extension.
Format format_for_path(const std::string& path);
const char* format_name(Format f);

// Decoding and encoding in memory; `name` is used in messages.
Image decode(const std::vector<uint8_t>& bytes, Format format, const std::string& name);
// Encoding may have to narrow a picture the format cannot hold (for example
// 48 bits into BMP); each such change is described in *notes.
std::vector<uint8_t> encode(const Image& image, Format format, const std::string& name,
                            std::vector<std::string>* notes = nullptr);

Image read_image(const std::string& path);
void write_image(const std::string& path, const Image& image, std::vector<std::string>* notes = nullptr);

std::vector<uint8_t> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace vkimg
