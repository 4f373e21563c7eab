// Colour count: duplicate palette entries, the stop bound, output order and
// channel order per source kind, gray bit ranges, progress and failures.
#include <gtest/gtest.h>

#include <vector>

#include "color_helpers.h"
#include "core.h"
#include "reduce_fixtures.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_GetBitmapColorCountExt);

namespace {

using vkt::quad;
bool same(const RGBQUAD& a, const RGBQUAD& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(ColorCount, DuplicatePaletteEntriesFold) {
  uint32_t n = 0;
  EXPECT_EQ(V_GetBitmapColorCountExt(nullptr, &n, nullptr), RESULT_NO_BITMAP);
  vkt::Bitmap b(16, 2, 4);
  EXPECT_EQ(V_GetBitmapColorCountExt(b.get(), nullptr, nullptr), RESULT_BAD_PARAMETER);
  std::vector<RGBQUAD> pal;
  for (int i = 0; i < 16; ++i) pal.push_back(quad(uint8_t(i * 16), 1, 2));
  pal[9] = pal[3];
  pal[9].rgbReserved = 5;  // the reserved byte does not make it different
  b.set_palette(pal);
  b.fill_index([](int x, int) { return uint32_t(15 - x); });  // every index used
  ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, nullptr), RESULT_OK);
  EXPECT_EQ(n, 15u);
  std::vector<RGBQUAD> out(256, quad(9, 9, 9));
  n = 256;
  ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, out.data()), RESULT_OK);
  EXPECT_EQ(n, 15u);
  // First appearance: indices 15..10, then 9 (folded onto entry 3), ...
  EXPECT_TRUE(same(out[0], pal[15]));
  EXPECT_TRUE(same(out[6], quad(48, 1, 2)));  // entry 3's colour, reserved byte 0
  EXPECT_TRUE(same(out[14], pal[0]));
  EXPECT_TRUE(same(out[15], quad(9, 9, 9)));
}

TEST(ColorCount, CapacityPlusOneMeansMore) {
  vkt::Bitmap b(20, 15, 24);  // 300 distinct colours
  b.fill([](int x, int y) { return vkt::Rgb{uint8_t(x), uint8_t(y), 9}; });
  uint32_t n = 0;
  ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, nullptr), RESULT_OK);
  EXPECT_EQ(n, 300u);
  std::vector<RGBQUAD> out(300, quad(1, 2, 3));
  n = 256;
  ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, out.data()), RESULT_OK);
  EXPECT_EQ(n, 257u);
  EXPECT_TRUE(same(out[255], quad(15, 12, 9)));  // pixel 255 = (x 15, y 12)
  EXPECT_TRUE(same(out[256], quad(1, 2, 3)));    // only 256 written
}

TEST(ColorCount, ChannelOrderOfEachSourceKind) {
  struct Case {
    int32_t bits, order;
    std::vector<uint8_t> pixel;  // stored bytes of one pixel
    RGBQUAD expect;
  };
  const Case cases[] = {
      {24, ORDER_BGR, {10, 20, 30}, quad(30, 20, 10)},
      {24, ORDER_RGB, {10, 20, 30}, quad(10, 20, 30)},
      {32, ORDER_BGR, {10, 20, 30, 99}, quad(30, 20, 10)},
      {48, ORDER_BGR, {1, 10, 2, 20, 3, 30}, quad(30, 20, 10)},        // high bytes of LE samples
      {64, ORDER_BGR, {1, 10, 2, 20, 3, 30, 0, 0}, quad(10, 20, 30)},  // 64 bits: always as stored
      {16, ORDER_BGR, {0x00, 0x7C}, quad(255, 0, 0)},                  // red in bits 10-14
      {16, ORDER_RGB, {0x1F, 0x00}, quad(255, 0, 0)},                  // red in bits 0-4
  };
  for (const Case& c : cases) {
    vkt::Bitmap b(3, 1, c.bits);
    b->Order = c.order;
    std::vector<uint8_t> row;
    for (int i = 0; i < 3; ++i) row.insert(row.end(), c.pixel.begin(), c.pixel.end());
    b.put_row(0, row);
    RGBQUAD out[2] = {};
    uint32_t n = 2;
    ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, out), RESULT_OK);
    EXPECT_EQ(n, 1u);
    EXPECT_TRUE(same(out[0], c.expect)) << c.bits << "/" << c.order;
  }
}

TEST(ColorCount, GraySamplesUseTheBitRange) {
  vkt::Bitmap b(256, 1, 16);
  b->Order = ORDER_GRAY;
  b->LowBit = 4;
  b->HighBit = 11;
  std::vector<uint8_t> row;
  for (uint32_t x = 0; x < 256; ++x) {
    const uint32_t s = (x << 4) | 0xF00Fu;  // bits outside 4..11 do not count
    row.push_back(uint8_t(s));
    row.push_back(uint8_t(s >> 8));
  }
  b.put_row(0, row);
  uint32_t n = 0;
  ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, nullptr), RESULT_OK);
  EXPECT_EQ(n, 256u);
  std::vector<RGBQUAD> out(10);
  n = 10;
  ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, out.data()), RESULT_OK);
  EXPECT_EQ(n, 11u);
  EXPECT_TRUE(same(out[3], quad(3, 3, 3)));
}

TEST(ColorCount, ProgressRefusalAndAllocationFailures) {
  vkt::Bitmap b(4, 8, 24);
  b.fill([](int x, int y) { return vkt::Rgb{uint8_t(x), uint8_t(y), 0}; });
  const long base = vk::fault::live_total();
  uint32_t n = 0;
  {
    vkt::StatusRecorder rec;
    ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, nullptr), RESULT_OK);
    EXPECT_EQ(n, 32u);
    // 100 / 8 = 12 per row with 4 carried against 8.
    EXPECT_EQ(rec.seen, (std::vector<int32_t>{0, 12, 25, 37, 50, 62, 75, 87, 100}));
  }
  {
    vkt::StatusRecorder rec;  // stopped early by the bound: 0, then 100
    RGBQUAD out[2];
    n = 2;
    ASSERT_EQ(V_GetBitmapColorCountExt(b.get(), &n, out), RESULT_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(rec.seen, (std::vector<int32_t>{0, 100}));
  }
  {
    vkt::StatusRecorder rec;
    rec.refuse_at = 37;
    n = 1234;
    EXPECT_EQ(V_GetBitmapColorCountExt(b.get(), &n, nullptr), 77);
    EXPECT_EQ(n, 1234u);
  }
  EXPECT_EQ(vk::fault::live_total(), base);
  vkt::fault_sweep([&] { n = 99; }, [&] { return V_GetBitmapColorCountExt(b.get(), &n, nullptr); },
                   [&](const vkt::SweepRun& run) {
                     if (run.result == RESULT_OK) return;
                     EXPECT_EQ(run.result, RESULT_FAIL);
                     EXPECT_EQ(n, 99u);
                   });
}

}  // namespace
