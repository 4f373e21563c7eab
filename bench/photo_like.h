// photo_like.h - the benchmarks' stand-in for a photograph: smooth
// gradients (a sky), a few soft shapes and mild sensor-like noise, so many
// distinct colours concentrated the way photographs are.  24-bit BGR.
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include "vkkrn.h"

namespace vkb {

// Fills an initialised record with a new width x height image (the caller
// frees it with V_FreeBitmap).
inline void make_photo_like(BitmapHandle& b, int32_t width, int32_t height) {
  std::memset(&b, 0, sizeof b);
  V_InitBitmap(&b, width, height, 24);
  V_AllocateBitmap(&b, TYPE_CONVENTIONAL);
  std::vector<uint8_t> row(b.BytesPerLine);
  uint32_t seed = 12345;
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      seed = seed * 1664525u + 1013904223u;
      const int noise = static_cast<int>((seed >> 24) & 15) - 8;
      const double fx = x / double(width), fy = y / double(height);
      const double sky = fy < 0.45 ? 1.0 : 0.0;
      const double blob = std::exp(-((fx - 0.6) * (fx - 0.6) + (fy - 0.6) * (fy - 0.6)) * 18.0);
      double r = sky * (90 + 80 * fy) + (1 - sky) * (70 + 60 * std::sin(fx * 9) + 40 * fy) + 120 * blob;
      double g = sky * (140 + 70 * fy) + (1 - sky) * (90 + 50 * std::cos(fx * 7 + fy * 3)) + 60 * blob;
      double bl = sky * (200 + 40 * fx) + (1 - sky) * (40 + 30 * std::sin(fy * 11)) + 20 * blob;
      auto clamp = [&](double v) { return static_cast<uint8_t>(std::fmin(255.0, std::fmax(0.0, v + noise))); };
      row[3 * x] = clamp(bl);
      row[3 * x + 1] = clamp(g);
      row[3 * x + 2] = clamp(r);
    }
    V_PutBitmapRow(&b, row.data(), static_cast<uint32_t>(y), static_cast<int32_t>(row.size()));
  }
}

// The image of one size, made on first use and kept for the process.
template <int32_t Width, int32_t Height>
BitmapHandle* photo_like() {
  static BitmapHandle b;
  static bool made = false;
  if (!made) make_photo_like(b, Width, Height);
  made = true;
  return &b;
}

}  // namespace vkb
