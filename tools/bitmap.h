// bitmap.h - moving pictures between the codec and the library's bitmaps.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image_io.h"
#include "vkkrn.h"

namespace vkimg {

// A library bitmap record that the program owns; frees its storage once.
class Bitmap {
 public:
  Bitmap() = default;
  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;
  Bitmap(Bitmap&& o) noexcept : h_(o.h_), owned_(o.owned_) { o.owned_ = false; }
  Bitmap& operator=(Bitmap&& o) noexcept;
  ~Bitmap() { reset(); }

  BitmapHandle* get() { return &h_; }
  const BitmapHandle& operator*() const { return h_; }
  const BitmapHandle* operator->() const { return &h_; }
  BitmapHandle* operator->() { return &h_; }
  bool allocated() const { return (h_.Flags & BITMAP_ALLOCATED) != 0; }
  void adopt() { owned_ = true; }      // the record now owns storage to free
  BitmapHandle release();              // hands the record (and its storage) over
  void reset();

 private:
  BitmapHandle h_{};
  bool owned_ = false;
};

// Thrown when the library refuses something; carries the result code.
struct LibraryError : std::runtime_error {
  int32_t code;
  LibraryError(const std::string& what, int32_t c) : std::runtime_error(what), code(c) {}
};

// A new bitmap of `memory_type` holding the picture (view perspective 0:
// rows top first).  1-8-bit pictures get their palette padded to 2^bits.
Bitmap to_bitmap(const Image& img, int memory_type);

// Reads an image file ("-": standard input) straight into a new bitmap, a
// block of rows at a time: into the storage itself when it is one block of
// memory, else through one block buffer.  Shows progress; throws IoError,
// LibraryError or Cancelled.
Bitmap load_bitmap(const std::string& path, int memory_type);

// Work that turns each row of a picture into a row of its result, top row
// first, needing nothing but the rows before it (dithering to a palette
// chosen in advance).
class RowStage {
 public:
  virtual ~RowStage() = default;
  // Whether rows of this record can go through the stage (else the picture
  // is loaded whole and the step runs the usual way).
  virtual bool accepts(const BitmapHandle&) const { return true; }
  // Told the record that describes the source rows (it has no pixels);
  // gives the result's layout.
  virtual ImageInfo begin(BitmapHandle& source) = 0;
  // One row in the record's layout into one row of the result's.
  virtual void run(uint8_t* source_row, uint8_t* result_row) = 0;
  // After the last row, and on every way out once begin succeeded.
  virtual void end() noexcept {}
};

// load_bitmap, the stage and save_bitmap in one pass with neither picture
// ever whole in memory: the rows go from the input through the stage to
// out_path a block at a time, so there is no picture-sized memory to get,
// clear and copy.  An input whose rows do not come one by one (interlaced
// PNG, alpha) is loaded whole instead and returned, the stage unused, for
// the caller to go on the usual way, and so is one the stage does not
// accept; after a streamed run the result is an empty Bitmap.  The output must be a format written from rows (not BMP).
Bitmap load_streaming(const std::string& path, int memory_type, RowStage& stage, const std::string& out_path,
                      Format format, const EncodeOptions& options, std::vector<std::string>* notes);

// A file written from the rows an operation hands over one by one (colour
// resolution without a destination), top row first: the result is never
// whole in memory.  The output must be a format written from rows (not
// BMP); the file appears only at commit().
class FileSink {
 public:
  FileSink(const std::string& path, Format format, const EncodeOptions& options, std::vector<std::string>* notes);
  ~FileSink();
  // count rows laid out as `record` describes them (it needs no storage);
  // the first call opens the encoder with that layout.
  void rows(BitmapHandle& record, const uint8_t* rows, int32_t count);
  void commit();

 private:
  std::unique_ptr<OutStream> out_;
  Format format_;
  EncodeOptions options_;
  std::vector<std::string>* notes_;
  std::unique_ptr<Encoder> encoder_;
  ImageInfo info_;
  int32_t done_ = 0;
};

// Writes the bitmap's rows to a file ("-": standard output) the same way.
// The file appears only when complete (see OutStream).  Depths the codecs
// have no layout for (12-bit gray, order 5) are converted row by row.
void save_bitmap(BitmapHandle& bm, const std::string& path, Format format, const EncodeOptions& options,
                 std::vector<std::string>* notes);

// Every page of a file (TIFF may hold several; other formats one).
std::vector<Bitmap> load_pages(const std::string& path, int memory_type);
// Several bitmaps as the pages of one file (TIFF; other formats take one).
void save_bitmaps(const std::vector<BitmapHandle*>& pages, const std::string& path, Format format,
                  const EncodeOptions& options, std::vector<std::string>* notes);

// What a file gets from rows laid out as `record` describes them: its
// layout, or the nearest one the codecs have (it needs no storage).
ImageInfo rows_info(BitmapHandle& record);

// Storage row of the seen row y (view perspectives 0 and 2 only).
int32_t storage_row(const BitmapHandle& bm, int32_t y);

}  // namespace vkimg
