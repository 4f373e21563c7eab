// test_alpha.cpp - the alpha channel: reading it out of 16-, 32- and 64-bit
// pixels, writing it back with the depth conversion and the working gray
// copy, the common area, every storage kind, and the fault sweeps.
#include "color_helpers.h"
#include "orient_helpers.h"

namespace {

using vkt::OrientTest;
using vkt::Store;

// Bytes of row y, x bytes in.
uint8_t byte_at(BitmapHandle* b, int32_t y, uint32_t x) {
  std::vector<uint8_t> row(b->BytesPerLine);
  V_GetBitmapRow(b, row.data(), uint32_t(y), int32_t(row.size()));
  return row[x];
}

class AlphaTest : public OrientTest {};

// Get then set gives every storage kind its alpha back; the result is
// 8-bit gray with a gray palette (16-bit ORDER_GRAY for 64-bit pixels).
TEST_F(AlphaTest, GetAndSetEveryDepthAndStorage) {
  for (int32_t bits : {16, 32, 64}) {
    for (Store s : vkt::stores_for(bits)) {
      SCOPED_TRACE(std::to_string(bits) + " bits, " + vkt::name(s));
      BitmapHandle b = make(s, 7, 5, bits, 4);
      BitmapHandle a;
      ASSERT_EQ(V_GetBitmapAlpha(&b, &a), RESULT_OK);
      EXPECT_EQ(a.BitsPerPixel, bits == 64 ? 16 : 8);
      EXPECT_EQ(a.Order, bits == 64 ? ORDER_GRAY : ORDER_RGB);
      EXPECT_EQ(a.ViewPerspective, b.ViewPerspective);
      EXPECT_EQ(bool(a.Flags & BITMAP_ON_DISK), s == Store::disk);
      ASSERT_NE(a.Palette, nullptr);
      const int32_t step = bits / 8, at = bits == 16 ? 1 : bits == 32 ? 3 : 6;
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 7; ++x) {
          const uint8_t px = byte_at(&b, y, uint32_t(x * step + at));
          if (bits == 16) EXPECT_EQ(byte_at(&a, y, uint32_t(x)), px & 0x80 ? 255 : 0);
          if (bits == 32) EXPECT_EQ(byte_at(&a, y, uint32_t(x)), px);
          if (bits == 64) EXPECT_EQ(byte_at(&a, y, uint32_t(2 * x)), px);
        }
      // Writing a fresh alpha and reading it again.
      BitmapHandle fresh = make(Store::memory, 7, 5, a.BitsPerPixel, 9);
      if (bits == 64) fresh.Order = ORDER_GRAY;
      else V_CreateBitmapGrayPalette(&fresh);
      ASSERT_EQ(V_SetBitmapAlpha(&b, &fresh), RESULT_OK);
      BitmapHandle again;
      ASSERT_EQ(V_GetBitmapAlpha(&b, &again), RESULT_OK);
      for (int32_t y = 0; y < 5; ++y)
        for (uint32_t x = 0; x < uint32_t(bits == 64 ? 14 : 7); ++x) {
          const uint8_t v = byte_at(&fresh, y, x);
          EXPECT_EQ(byte_at(&again, y, x), bits == 16 ? (v >= 128 ? 255 : 0) : v) << x << "," << y;
        }
      V_FreeBitmap(&again);
      V_FreeBitmap(&fresh);
      V_FreeBitmap(&a);
      V_FreeBitmap(&b);
    }
  }
}

TEST_F(AlphaTest, EdgeCases) {
  // A 24-bit bitmap has none: zeros with a gray palette.
  BitmapHandle b24 = make(Store::memory, 3, 2, 24);
  BitmapHandle a;
  ASSERT_EQ(V_GetBitmapAlpha(&b24, &a), RESULT_OK);
  EXPECT_EQ(vkt::read_pixels(&a), std::vector<uint8_t>(8, 0));
  RGBQUAD e[256];
  ASSERT_EQ(V_GetBitmapPaletteEntries(&a, 0, 256, e), 256);
  EXPECT_EQ(e[100].rgbRed, 100);
  V_FreeBitmap(&a);

  // 0x8000 gives 255, 0x7FFF gives 0; alpha 127 clears bit 15, 128 sets it.
  BitmapHandle b16 = make(Store::memory, 2, 1, 16);
  const uint8_t px[4] = {0x00, 0x80, 0xFF, 0x7F};
  V_PutBitmapRow(&b16, px, 0, 4);
  ASSERT_EQ(V_GetBitmapAlpha(&b16, &a), RESULT_OK);
  EXPECT_EQ(byte_at(&a, 0, 0), 255);
  EXPECT_EQ(byte_at(&a, 0, 1), 0);
  const uint8_t values[4] = {127, 128, 0, 0};
  V_PutBitmapRow(&a, values, 0, 4);
  ASSERT_EQ(V_SetBitmapAlpha(&b16, &a), RESULT_OK);
  std::vector<uint8_t> row = vkt::read_pixels(&b16);
  EXPECT_EQ(row[1], 0x00);  // 0x8000 -> 0x0000
  EXPECT_EQ(row[3], 0xFF);  // 0x7FFF -> 0xFFFF
  V_FreeBitmap(&a);

  // A 1-bit alpha on 16-bit pixels, bit for bit.
  BitmapHandle mask = make(Store::memory, 2, 1, 1);
  const std::vector<RGBQUAD> bw = vkt::gray_ramp(2);
  V_CreateBitmapPalette(&mask, bw.data(), 2);
  const uint8_t bits1[4] = {0x40, 0, 0, 0};
  V_PutBitmapRow(&mask, bits1, 0, 4);
  ASSERT_EQ(V_SetBitmapAlpha(&b16, &mask), RESULT_OK);
  row = vkt::read_pixels(&b16);
  EXPECT_EQ(row[1] & 0x80, 0);
  EXPECT_EQ(row[3] & 0x80, 0x80);
  V_FreeBitmap(&mask);
  V_FreeBitmap(&b16);

  // 24 bits become 32 with the alpha in the fourth byte; a smaller alpha in
  // another view perspective and with a colour palette goes through a gray
  // copy and reaches only the top-left area.
  BitmapHandle small = make(Store::memory, 2, 1, 8);
  const std::vector<RGBQUAD> pal = {vkt::quad(0, 0, 0), vkt::quad(255, 255, 255), vkt::quad(255, 0, 0)};
  V_CreateBitmapPalette(&small, pal.data(), 3);
  const uint8_t idx[4] = {1, 2, 0, 0};
  V_PutBitmapRow(&small, idx, 0, 4);
  small.ViewPerspective = 0;  // one row: the same picture either way
  const std::vector<uint8_t> before = vkt::read_pixels(&b24);
  ASSERT_EQ(V_SetBitmapAlpha(&b24, &small), RESULT_OK);
  EXPECT_EQ(b24.BitsPerPixel, 32);
  EXPECT_EQ(small.BitsPerPixel, 8);  // the caller's alpha is not changed
  row = vkt::read_pixels(&b24);
  EXPECT_EQ(row[3], 255);
  EXPECT_EQ(row[7], (5 * 0 + 2 * 255 + 0 + 4) / 8);  // red's gray level
  EXPECT_EQ(row[11], 0);                             // outside: as converted
  EXPECT_EQ(row[15], 0);
  EXPECT_EQ(row[0], before[0]);
  V_FreeBitmap(&small);
  V_FreeBitmap(&b24);

  BitmapHandle empty = vkt::init(2, 2, 32);
  EXPECT_EQ(V_GetBitmapAlpha(&empty, &a), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapAlpha(nullptr, &a), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetBitmapAlpha(&empty, &empty), RESULT_BAD_PARAMETER);
}

VKT_SWEEPS(V_GetBitmapAlpha, V_SetBitmapAlpha);
TEST_F(AlphaTest, FaultSweeps) {
  vkt::sweep_kept([&] { return make(Store::memory, 9, 4, 32); }, [](BitmapHandle* b) {
    BitmapHandle out;
    const int32_t r = V_GetBitmapAlpha(b, &out);
    if (r == RESULT_OK) V_FreeBitmap(&out);
    return r;
  });
  BitmapHandle b{}, a{};
  vkt::Snapshot before;
  // A 24-bit target (conversion) and a colour alpha in another view (working copy).
  for (int32_t bits : {32, 24}) {
    vkt::fault_sweep(
        [&] {
          b = make(Store::memory, 9, 4, bits);
          a = make(Store::memory, 4, 9, 8, 2);
          a.ViewPerspective = 4;
          before = vkt::Snapshot(&b);
        },
        [&] { return V_SetBitmapAlpha(&b, &a); },
        [&](const vkt::SweepRun& run) {
          if (run.result != RESULT_OK) {
            EXPECT_EQ(run.result, RESULT_FAIL);
            if (b.BitsPerPixel == bits) EXPECT_TRUE(before.unchanged());
          }
          V_FreeBitmap(&a);
          V_FreeBitmap(&b);
        });
  }
}

}  // namespace
