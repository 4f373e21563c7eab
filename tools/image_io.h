// image_io.h - the command-line program's own image file codec.
//
// PNG (libpng), JPEG (libjpeg-turbo), TIFF (libtiff) and binary PNM (P4,
// P5, P6) are decoded and encoded a block of rows at a time in the
// library's own row layouts, so that rows move between a file and a bitmap
// with no whole-image copy in between.  BMP is a file header in front of
// the library's device-independent bitmap: the library reads it (the file
// becomes the bitmap's storage) and writes it (from a whole bitmap).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "vkkrn.h"

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

// What a file holds, before its pixels: geometry, the row layout the
// pixels take in memory, palette and resolution.  Layouts are those of the
// library:
//   bits 1, 2, 4, 8   palette indices, packed most significant bit first
//   bits 16           order 2: one little-endian 16-bit gray sample;
//                     order 0/1: 5-5-5 colour (order 1: red in bits 10-14)
//   bits 24, 32       8-bit channels in the order's sequence (32: then alpha)
//   bits 48, 64       little-endian 16-bit channels (64: then alpha)
// Rows are padded to a multiple of 4 bytes, exactly as a bitmap row.
struct ImageInfo {
  int width = 0;
  int height = 0;
  int bits = 0;
  int order = kOrderBgr;
  std::vector<Colour> palette;  // up to 2^bits entries, for bits <= 8
  int xdpi = 0, ydpi = 0;       // 0 = unknown
  bool alpha = false;           // 32/64 bits: the fourth channel is used

  static size_t stride_for(int width, int bits) {
    return ((static_cast<size_t>(width) * static_cast<size_t>(bits) + 31) / 32) * 4;
  }
  size_t stride() const { return stride_for(width, bits); }
  bool is_gray_ramp() const;  // palette = the 2^bits-entry black-to-white ramp
  bool palette_is_gray() const;
};

// One whole picture in memory, top row first.
struct Image : ImageInfo {
  std::vector<uint8_t> data;

  uint8_t* row(int y) { return data.data() + static_cast<size_t>(y) * stride(); }
  const uint8_t* row(int y) const { return data.data() + static_cast<size_t>(y) * stride(); }

  // Sets the geometry and zero-fills the pixels (throws on absurd sizes).
  void allocate(int w, int h, int bpp, int colour_order);
  uint32_t index_at(int x, int y) const;  // bits <= 8 only
  void set_index(int x, int y, uint32_t index);
};

enum class Format { png, pbm, pgm, ppm, pnm, bmp, jpeg, tiff };

// How lossy and compressing formats write.
enum class TiffCompression { automatic, none, packbits, lzw, deflate, g3, g4 };
struct EncodeOptions {
  int quality = 90;  // JPEG, 1-100
  TiffCompression tiff = TiffCompression::automatic;  // 1-bit: G4, else LZW
};

class InStream;
class OutStream;

// Told (bytes or rows done, of total) as a codec that moves a whole file at
// once goes along; may throw to stop it.
using Progress = std::function<void(int64_t done, int64_t total)>;

// A failure that names the file; the message is ready to print.
struct IoError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Largest picture the codec accepts: each side and the pixel bytes.  A
// corrupt header cannot make it allocate more than this.  The byte limit is a
// variable so that a harness feeding corrupt files can lower it.
inline constexpr int kMaxSide = 1 << 18;
inline uint64_t max_image_bytes = uint64_t(1) << 31;
// BMP is written a band of rows at a time, each band about this many bytes
// of the bitmap (at least one row); a test lowers it to cross many bands.
inline size_t bmp_band_bytes = size_t(2) << 20;

// Format from the file name's extension (case-insensitive); throws IoError
// for an unknown extension.  Writing goes by the name, reading by content.
Format format_for_path(const std::string& path);
const char* format_name(Format f);

// ---- streaming: rows move between a file and the caller's memory ----

// Reads the header on construction; then the rows in blocks, top row first.
class Decoder {
 public:
  virtual ~Decoder() = default;
  const ImageInfo& info() const { return info_; }
  // Interlaced files give their rows only all at once (count = height).
  virtual bool whole_image() const { return false; }
  // The next `count` rows in file order; row k at dst + k * stride.
  virtual void read_rows(uint8_t* dst, ptrdiff_t stride, int count) = 0;
  // Reads what follows the last row (a corrupt trailer is an error).
  virtual void finish() {}
  // Moves to the file's next page (TIFF), after all rows of this one were
  // read; false when there is none.
  virtual bool next_page() { return false; }
  // A decoder whose pixels already lie in a library bitmap (BMP) hands that
  // bitmap over instead of giving rows (the caller frees it); once only.
  virtual bool take_bitmap(BitmapHandle*) { return false; }

 protected:
  ImageInfo info_;
};

class Encoder {
 public:
  virtual ~Encoder() = default;
  // The next `count` rows, top row first, in info's layout.
  virtual void write_rows(const uint8_t* src, ptrdiff_t stride, int count) = 0;
  virtual void finish() {}
  // Starts another page (TIFF) after all rows of this one were written.
  virtual void add_page(const ImageInfo&);
  // An encoder that writes from a library bitmap (BMP) takes the whole
  // bitmap instead of rows (then finish() adds nothing); false: give rows.
  virtual bool write_bitmap(BitmapHandle&, const Progress&) { return false; }
};

// The format is recognised from the first bytes; throws IoError naming the
// input.  A BMP is read whole here, telling `progress`.
std::unique_ptr<Decoder> open_decoder(InStream& in, const Progress& progress = {});
// Narrowing a picture the format cannot hold (for example 48 bits into BMP)
// is described in *notes.  The header is written at once.
std::unique_ptr<Encoder> open_encoder(OutStream& out, Format format, const ImageInfo& info,
                                      std::vector<std::string>* notes, const EncodeOptions& options = {});

// ---- whole pictures ----

// Decoding and encoding in memory; `name` is used in messages.  The format
// is recognised from the bytes; `format` is only a hint kept for callers.
Image decode(const std::vector<uint8_t>& bytes, Format format, const std::string& name);
// Encoding may have to narrow a picture the format cannot hold (for example
// 48 bits into BMP); each such change is described in *notes.
std::vector<uint8_t> encode(const Image& image, Format format, const std::string& name,
                            std::vector<std::string>* notes = nullptr, const EncodeOptions& options = {});

Image read_image(const std::string& path);
void write_image(const std::string& path, const Image& image, std::vector<std::string>* notes = nullptr);

std::vector<uint8_t> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace vkimg
