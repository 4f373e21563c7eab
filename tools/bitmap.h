// bitmap.h - moving pictures between the codec and the library's bitmaps.
#pragma once

#include <cstdint>
#include <string>

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

// The bitmap's pixels as a picture the codec can save: depths the codec has
// no layout for (12-bit gray, order 5) are converted, rows are put top first
// by the view perspective.
Image to_image(BitmapHandle& bm);

// Storage row of the seen row y (view perspectives 0 and 2 only).
int32_t storage_row(const BitmapHandle& bm, int32_t y);

}  // namespace vkimg
