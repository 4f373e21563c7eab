// Small bitmap helpers for the colour-reduction and list tests.
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
  Bitmap(int32_t w, int32_t h, int32_t bits, int32_t memory_type = TYPE_CONVENTIONAL) {
    std::memset(&b_, 0, sizeof b_);
    EXPECT_EQ(V_InitBitmap(&b_, w, h, bits), RESULT_OK);
    EXPECT_EQ(V_AllocateBitmap(&b_, memory_type), RESULT_OK);
  }
  ~Bitmap() {
    if (owned_) V_FreeBitmap(&b_);
  }
  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;

  BitmapHandle* get() { return &b_; }
  BitmapHandle* operator->() { return &b_; }
  BitmapHandle release() {
    owned_ = false;
    return b_;
  }

  // A table palette of the given entries.
  void set_palette(const std::vector<RGBQUAD>& entries) {
    if (b_.Palette) {
      if (b_.Flags & PALETTE_IS_TABLE) V_OsFree(b_.Palette);
      b_.Palette = nullptr;
    }
    b_.Flags |= PALETTE_IS_TABLE;
    V_CreateBitmapPalette(&b_, entries.data(), static_cast<int32_t>(entries.size()));
  }

  void put_row(int32_t y, const std::vector<uint8_t>& row) {
    std::vector<uint8_t> r(row);
    r.resize(b_.BytesPerLine);
    ASSERT_GE(V_PutBitmapRow(&b_, r.data(), static_cast<uint32_t>(y), static_cast<int32_t>(b_.BytesPerLine)), 0);
  }
  std::vector<uint8_t> row(int32_t y) {
    std::vector<uint8_t> r(b_.BytesPerLine);
    V_GetBitmapRow(&b_, r.data(), static_cast<uint32_t>(y), static_cast<int32_t>(b_.BytesPerLine));
    return r;
  }
  std::vector<uint8_t> pixels() {
    std::vector<uint8_t> all;
    for (int32_t y = 0; y < b_.Height; ++y) {
      auto r = row(y);
      all.insert(all.end(), r.begin(), r.end());
    }
    return all;
  }

  // 24-bit rows in the bitmap's order (0 RGB, else BGR).
  void fill(const std::function<Rgb(int, int)>& f) {
    for (int32_t y = 0; y < b_.Height; ++y) {
      std::vector<uint8_t> r(b_.BytesPerLine);
      for (int32_t x = 0; x < b_.Width; ++x) {
        const Rgb c = f(x, y);
        uint8_t* p = r.data() + 3 * x;
        if (b_.Order == ORDER_RGB) {
          p[0] = c.r, p[1] = c.g, p[2] = c.b;
        } else {
          p[0] = c.b, p[1] = c.g, p[2] = c.r;
        }
      }
      put_row(y, r);
    }
  }
  // Packed indices of up to 8 bits.
  void fill_index(const std::function<uint32_t(int, int)>& f) {
    const int bits = b_.BitsPerPixel;
    for (int32_t y = 0; y < b_.Height; ++y) {
      std::vector<uint8_t> r(b_.BytesPerLine + 1);
      for (int32_t x = 0; x < b_.Width; ++x) {
        const uint32_t v = f(x, y) & ((1u << bits) - 1);
        const uint32_t bit = static_cast<uint32_t>(x) * bits;
        const uint32_t word = v << (16 - bits - (bit & 7));
        r[bit >> 3] |= static_cast<uint8_t>(word >> 8);
        r[(bit >> 3) + 1] |= static_cast<uint8_t>(word);
      }
      r.resize(b_.BytesPerLine);
      put_row(y, r);
    }
  }
  uint32_t index(int x, int y) {
    auto r = row(y);
    r.push_back(0);
    const int bits = b_.BitsPerPixel;
    const uint32_t bit = static_cast<uint32_t>(x) * bits;
    const uint32_t word = (uint32_t(r[bit >> 3]) << 8) | r[(bit >> 3) + 1];
    return (word >> (16 - bits - (bit & 7))) & ((1u << bits) - 1);
  }
  std::vector<RGBQUAD> palette() {
    std::vector<RGBQUAD> p(b_.ColorCount);
    if (!p.empty()) V_GetBitmapPaletteEntries(&b_, 0, static_cast<int32_t>(p.size()), p.data());
    return p;
  }

 private:
  BitmapHandle b_;
  bool owned_ = true;
};

// A list destroyed at scope exit; items added by value (the list owns them).
class List {
 public:
  List() { EXPECT_EQ(V_CreateBitmapList(&l_), RESULT_OK); }
  ~List() {
    if (l_) V_DestroyBitmapList(l_);
  }
  List(const List&) = delete;
  List& operator=(const List&) = delete;
  BitmapList get() const { return l_; }
  void add(Bitmap& b) {
    BitmapHandle h = b.release();
    EXPECT_EQ(V_InsertBitmapListItem(l_, 0xFFFFFFFFu, &h), RESULT_OK);
  }
  BitmapHandle item(uint32_t i) const {
    BitmapHandle h;
    std::memset(&h, 0, sizeof h);
    EXPECT_EQ(V_GetBitmapListItem(l_, i, &h), RESULT_OK);
    return h;
  }

 private:
  BitmapList l_ = nullptr;
};

// Records the percentages a status callback receives; can refuse at one.
struct StatusRecorder {
  std::vector<int32_t> seen;
  int32_t refuse_at = -1;
  int32_t refusal = 77;
  static int32_t VK_CALL hook(int32_t percent, intptr_t data) {
    auto* s = reinterpret_cast<StatusRecorder*>(data);
    s->seen.push_back(percent);
    return percent == s->refuse_at ? s->refusal : RESULT_OK;
  }
};

// Installs a status callback for a scope.
class StatusScope {
 public:
  explicit StatusScope(StatusRecorder& r) { V_SetStatusCallBack(&StatusRecorder::hook, reinterpret_cast<intptr_t>(&r)); }
  ~StatusScope() { V_SetStatusCallBack(nullptr, 0); }
};

}  // namespace vkt
