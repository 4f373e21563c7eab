// orient_helpers.h - the pieces of the orientation tests: bitmaps of every
// depth in every storage kind, their pixels as plain values read through row
// access, and a reference reader of packed rows that shares no code with the
// library.
#pragma once

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "storage_helpers.h"

namespace vkt {

inline const int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
inline const int32_t kWidths[] = {1, 7, 31, 33};

// Pixel x of a packed row, as an integer (whole-byte pixels little-endian).
inline uint64_t ref_pixel(const uint8_t* row, int32_t bits, uint32_t x) {
  if (bits < 8) {
    uint64_t v = 0;
    for (int32_t i = 0; i < bits; ++i) {
      const uint64_t bit = uint64_t{x} * bits + i;
      v = (v << 1) | ((row[bit / 8] >> (7 - bit % 8)) & 1u);
    }
    return v;
  }
  if (bits == 12) {
    const uint8_t* p = row + (x / 2) * 3;
    return x % 2 ? (p[1] >> 4) | (p[2] << 4) : p[0] | ((p[1] & 0x0F) << 8);
  }
  uint64_t v = 0;
  for (int32_t i = bits / 8 - 1; i >= 0; --i) v = (v << 8) | row[size_t(x) * (bits / 8) + i];
  return v;
}

// A picture as plain pixel values, row-major.
struct Pixels {
  int32_t w = 0, h = 0;
  std::vector<uint64_t> v;
  uint64_t at(int32_t x, int32_t y) const { return v[size_t(y) * w + x]; }
  bool operator==(const Pixels& o) const { return w == o.w && h == o.h && v == o.v; }
};

inline Pixels pixels_of(BitmapHandle* b) {
  Pixels p{b->Width, b->Height, {}};
  std::vector<uint8_t> row(b->BytesPerLine + 8);
  for (int32_t y = 0; y < b->Height; ++y) {
    EXPECT_GT(V_GetBitmapRow(b, row.data(), uint32_t(y), int32_t(b->BytesPerLine)), 0);
    for (int32_t x = 0; x < b->Width; ++x) p.v.push_back(ref_pixel(row.data(), b->BitsPerPixel, uint32_t(x)));
  }
  return p;
}

// The storage kinds a bitmap can have (compressed only for 1 bit).
enum class Store { memory, disk, tiles, compressed };
inline const char* name(Store s) {
  return s == Store::memory ? "memory" : s == Store::disk ? "disk" : s == Store::tiles ? "tiles" : "compressed";
}
inline std::vector<Store> stores_for(int32_t bits) {
  std::vector<Store> s = {Store::memory, Store::disk, Store::tiles};
  if (bits == 1) s.push_back(Store::compressed);
  return s;
}

class OrientTest : public StorageTest {
 protected:
  void TearDown() override {
    V_SetStatusCallBack(nullptr, 0);
    StorageTest::TearDown();
  }
  // A bitmap of random pixels (runs of equal pixels, so compressed rows
  // have runs of several lengths).
  BitmapHandle make(Store s, int32_t w, int32_t h, int32_t bits, uint32_t seed = 1) {
    BitmapHandle b = init(w, h, bits);
    int32_t type = TYPE_CONVENTIONAL;
    if (s == Store::disk) type = TYPE_DISK;
    if (s == Store::compressed) type = TYPE_COMPRESSED;
    if (s == Store::tiles) {
      tiny_tiles(b.BytesPerLine, 3);
      type = TYPE_TILED;
    }
    EXPECT_EQ(V_AllocateBitmap(&b, type), RESULT_OK);
    // Back to the fixture's thresholds: results of operations are flat.
    if (s == Store::tiles) EXPECT_EQ(V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31), RESULT_OK);
    std::mt19937 rng(seed);
    std::vector<uint8_t> row(b.BytesPerLine);
    for (int32_t y = 0; y < h; ++y) {
      for (size_t i = 0; i < row.size(); ++i) row[i] = rng() % 3 == 0 ? uint8_t(rng()) : (i ? row[i - 1] : 0);
      EXPECT_GT(V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(row.size())), 0);
    }
    return b;
  }
};

}  // namespace vkt
