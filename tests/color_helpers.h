// color_helpers.h - small helpers shared by the palette, gray and pixel tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "fault.h"
#include "vkkrn.h"

namespace vkt {

inline RGBQUAD quad(int r, int g, int b, int reserved = 0) {
  RGBQUAD q;
  q.rgbRed = static_cast<uint8_t>(r);
  q.rgbGreen = static_cast<uint8_t>(g);
  q.rgbBlue = static_cast<uint8_t>(b);
  q.rgbReserved = static_cast<uint8_t>(reserved);
  return q;
}

inline bool same_rgb(const RGBQUAD& a, const RGBQUAD& b) {
  return a.rgbRed == b.rgbRed && a.rgbGreen == b.rgbGreen && a.rgbBlue == b.rgbBlue;
}

inline std::vector<RGBQUAD> gray_ramp(int n) {
  std::vector<RGBQUAD> v;
  for (int i = 0; i < n; ++i) {
    const int x = n > 1 ? i * 255 / (n - 1) : 0;
    v.push_back(quad(x, x, x));
  }
  return v;
}

inline std::vector<RGBQUAD> random_palette(int n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<RGBQUAD> v;
  for (int i = 0; i < n; ++i) v.push_back(quad(rng() & 255, rng() & 255, rng() & 255, 0));
  return v;
}

// Every pixel byte of a bitmap, row by row (BytesPerLine each).
inline std::vector<uint8_t> read_pixels(BitmapHandle* b) {
  std::vector<uint8_t> out(static_cast<size_t>(b->BytesPerLine) * static_cast<size_t>(b->Height));
  for (int32_t y = 0; y < b->Height; ++y)
    V_GetBitmapRow(b, out.data() + static_cast<size_t>(y) * b->BytesPerLine, static_cast<uint32_t>(y),
                   static_cast<int32_t>(b->BytesPerLine));
  return out;
}

inline void write_pixels(BitmapHandle* b, const std::vector<uint8_t>& px) {
  for (int32_t y = 0; y < b->Height; ++y)
    V_PutBitmapRow(b, px.data() + static_cast<size_t>(y) * b->BytesPerLine, static_cast<uint32_t>(y),
                   static_cast<int32_t>(b->BytesPerLine));
}

inline void fill_random(BitmapHandle* b, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> px(static_cast<size_t>(b->BytesPerLine) * static_cast<size_t>(b->Height));
  for (auto& x : px) x = static_cast<uint8_t>(rng());
  write_pixels(b, px);
}

inline bool same_record(const BitmapHandle& a, const BitmapHandle& b) {
  return std::memcmp(&a, &b, sizeof(BitmapHandle)) == 0;
}

// Checks that a test leaves no allocation behind.
class LeakCheck : public ::testing::Test {
 protected:
  void SetUp() override { baseline_ = vk::fault::live_total(); }
  void TearDown() override {
    vk::fault::disarm();
    EXPECT_EQ(vk::fault::live_total(), baseline_) << "allocations left behind";
  }
  long baseline_ = 0;
};

}  // namespace vkt
