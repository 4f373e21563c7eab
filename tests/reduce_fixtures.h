// Small bitmap helpers for the colour-reduction tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "core.h"

namespace vkt {

struct Rgb {
  uint8_t r, g, b;
};

// An allocated bitmap freed at scope exit unless handed over.
class Bitmap {
 public:
  Bitmap(int32_t w, int32_t h, int32_t bits) {
    EXPECT_EQ(V_InitBitmap(&b_, w, h, bits), RESULT_OK);
    EXPECT_EQ(V_AllocateBitmap(&b_, TYPE_CONVENTIONAL), RESULT_OK);
  }
  ~Bitmap() {
    if (owned_) V_FreeBitmap(&b_);
  }
  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;
  BitmapHandle* get() { return &b_; }
  BitmapHandle* operator->() { return &b_; }
  BitmapHandle release() { return owned_ = false, b_; }

  void set_palette(const std::vector<RGBQUAD>& entries) {  // table form
    b_.Flags |= PALETTE_IS_TABLE;
    V_CreateBitmapPalette(&b_, entries.data(), int32_t(entries.size()));
  }
  std::vector<RGBQUAD> palette() {
    std::vector<RGBQUAD> p(b_.ColorCount);
    V_GetBitmapPaletteEntries(&b_, 0, int32_t(p.size()), p.data());
    return p;
  }
  void put_row(int32_t y, std::vector<uint8_t> row) {
    row.resize(b_.BytesPerLine);
    ASSERT_GE(V_PutBitmapRow(&b_, row.data(), uint32_t(y), int32_t(row.size())), 0);
  }
  std::vector<uint8_t> pixels() {
    std::vector<uint8_t> all(size_t(b_.BytesPerLine) * b_.Height);
    for (int32_t y = 0; y < b_.Height; ++y)
      V_GetBitmapRow(&b_, all.data() + size_t(y) * b_.BytesPerLine, uint32_t(y), int32_t(b_.BytesPerLine));
    return all;
  }
  // 24-bit pixels in the bitmap's order (0 RGB, else BGR).
  void fill(const std::function<Rgb(int, int)>& f) {
    for (int32_t y = 0; y < b_.Height; ++y) {
      std::vector<uint8_t> r(b_.BytesPerLine);
      for (int32_t x = 0; x < b_.Width; ++x) {
        const Rgb c = f(x, y);
        const bool rgb = b_.Order == ORDER_RGB;
        r[3 * x] = rgb ? c.r : c.b, r[3 * x + 1] = c.g, r[3 * x + 2] = rgb ? c.b : c.r;
      }
      put_row(y, r);
    }
  }
  // Packed indices of 1-8 bits, most significant bits first.
  void fill_index(const std::function<uint32_t(int, int)>& f) {
    const int bits = b_.BitsPerPixel;
    for (int32_t y = 0; y < b_.Height; ++y) {
      std::vector<uint8_t> r(b_.BytesPerLine + 1);
      for (int32_t x = 0; x < b_.Width; ++x) {
        const uint32_t bit = uint32_t(x) * bits, word = (f(x, y) & ((1u << bits) - 1)) << (16 - bits - (bit & 7));
        r[bit >> 3] |= uint8_t(word >> 8), r[(bit >> 3) + 1] |= uint8_t(word);
      }
      put_row(y, r);
    }
  }
  uint32_t index(int x, int y) {
    const std::vector<uint8_t> all = pixels();
    const uint8_t* r = all.data() + size_t(y) * b_.BytesPerLine;
    const int bits = b_.BitsPerPixel;
    const uint32_t bit = uint32_t(x) * bits;
    const uint32_t word = (uint32_t(r[bit >> 3]) << 8) | ((bit >> 3) + 1 < b_.BytesPerLine ? r[(bit >> 3) + 1] : 0);
    return (word >> (16 - bits - (bit & 7))) & ((1u << bits) - 1);
  }

 private:
  BitmapHandle b_{};
  bool owned_ = true;
};

}  // namespace vkt
