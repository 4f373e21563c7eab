// Bitmap records: initialisation, shallow copies and the per-thread defaults
// that new records take.
#include <gtest/gtest.h>

#include <cstring>

#include "core.h"
#include "platform.h"

namespace {

bool all_zero(const BitmapHandle& b) {
  static const BitmapHandle zero{};
  return std::memcmp(&b, &zero, sizeof b) == 0;
}

TEST(Record, InitGeometryPerDepth) {
  const struct {
    int32_t w, h, bits;
    uint32_t bpl, colours;
    int32_t order;
  } cases[] = {
      {1, 1, 1, 4, 2, ORDER_RGB},       {32, 2, 1, 4, 2, ORDER_RGB},     {33, 2, 1, 8, 2, ORDER_RGB},
      {3, 5, 24, 12, 0, ORDER_BGR},     {5, 1, 3, 4, 8, ORDER_RGB},      {11, 1, 7, 12, 128, ORDER_RGB},
      {7, 3, 8, 8, 256, ORDER_RGB},     {3, 2, 12, 8, 0, ORDER_GRAY},    {2, 2, 16, 4, 0, ORDER_BGR},
      {1, 1, 32, 4, 0, ORDER_BGR},      {1, 1, 48, 8, 0, ORDER_BGR},     {3, 1, 64, 24, 0, ORDER_BGR},
      {0, 10, 8, 0, 256, ORDER_RGB},  // zero width is not refused here
  };
  // The fields named here get these values; every other field is zero.
  for (const auto& c : cases) {
    BitmapHandle b, want{};
    std::memset(&b, 0xAB, sizeof b);
    ASSERT_EQ(V_InitBitmap(&b, c.w, c.h, c.bits), RESULT_OK) << c.bits;
    want.Width = c.w;
    want.Height = c.h;
    want.BitsPerPixel = c.bits;
    want.BytesPerLine = c.bpl;
    want.Size = c.bpl * static_cast<uint32_t>(c.h);
    want.ColorCount = c.colours;
    want.Order = c.order;
    want.ViewPerspective = 2;
    want.DitheringMethod = DITHER_ORDERED;
    want.XResolution = want.YResolution = 150;
    want.HighBit = want.PaintHighBit = c.bits - 1;
    want.PaintPercent = 100;
    EXPECT_EQ(std::memcmp(&b, &want, sizeof b), 0) << c.w << "x" << c.bits << ": BytesPerLine " << b.BytesPerLine
                                                   << ", ColorCount " << b.ColorCount << ", Order " << b.Order;
  }
}

TEST(Record, BlankAndBadDepthLeaveAZeroRecord) {
  BitmapHandle b;
  std::memset(&b, 0xAB, sizeof b);
  EXPECT_EQ(V_InitBitmap(&b, 0, 0, 0), RESULT_OK);
  EXPECT_TRUE(all_zero(b));

  const struct { int32_t w, h, bits; } bad[] = {{10, 10, 9}, {10, 10, 10}, {10, 10, 11}, {10, 10, 0},
                                                {0, 1, 0},   {1, 0, 13},   {4, 4, 128}, {4, 4, -8}};
  for (const auto& c : bad) {
    std::memset(&b, 0xAB, sizeof b);
    EXPECT_EQ(V_InitBitmap(&b, c.w, c.h, c.bits), RESULT_BAD_BITS_PER_PIXEL) << c.bits;
    EXPECT_TRUE(all_zero(b)) << c.bits;
  }
  EXPECT_EQ(V_InitBitmap(nullptr, 1, 1, 8), RESULT_BAD_PARAMETER);
}

TEST(Record, SizeUsesUnsignedArithmetic) {
  BitmapHandle b;
  // 65536 x 65536 at 8 bits: the 32-bit product wraps, as the record's
  // unsigned Size field does.
  ASSERT_EQ(V_InitBitmap(&b, 65536, 65536, 8), RESULT_OK);
  EXPECT_EQ(b.BytesPerLine, 65536u);
  EXPECT_EQ(b.Size, 0u);
  ASSERT_EQ(V_InitBitmap(&b, -1, 2, 8), RESULT_OK);  // not checked for sign
  EXPECT_EQ(b.BytesPerLine, 0u);  // (8 * 0xFFFFFFFF + 31) wraps to 23
}

TEST(Record, NewRecordsTakeTheThreadDefaults) {
  const int32_t old_x = V_SetDefaultXResolution(300);
  const int32_t old_y = V_SetDefaultYResolution(72);
  EXPECT_EQ(V_SetDefaultXResolution(300), 300);  // returns the previous value
  ASSERT_EQ(V_DefaultDithering(DITHER_CLUSTERED), RESULT_OK);
  BitmapHandle b;
  ASSERT_EQ(V_InitBitmap(&b, 4, 4, 8), RESULT_OK);
  EXPECT_EQ(b.XResolution, 300);
  EXPECT_EQ(b.YResolution, 72);
  EXPECT_EQ(b.DitheringMethod, DITHER_CLUSTERED);

  // Unset (0 or negative) resolutions fall back to 150.
  const int32_t unset[][2] = {{0, 0}, {-5, -1}, {0, 96}};
  for (const auto& u : unset) {
    V_SetDefaultXResolution(u[0]);
    V_SetDefaultYResolution(u[1]);
    EXPECT_EQ(V_GetDefaultXResolution(), u[0]);
    ASSERT_EQ(V_InitBitmap(&b, 4, 4, 8), RESULT_OK);
    EXPECT_EQ(b.XResolution, 150);
    EXPECT_EQ(b.YResolution, u[1] > 0 ? u[1] : 150);
  }
  V_SetDefaultXResolution(old_x);
  V_SetDefaultYResolution(old_y);
  V_DefaultDithering(DITHER_ORDERED);
}

TEST(Record, DefaultSettersCheckTheirValues) {
  EXPECT_EQ(V_DefaultDithering(9), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_DefaultDithering(-1), RESULT_BAD_PARAMETER);  // compared unsigned
  EXPECT_EQ(V_GetDefaultDithering(), DITHER_ORDERED);
  EXPECT_EQ(V_DefaultDithering(8), RESULT_OK);
  EXPECT_EQ(V_DefaultDithering(0), RESULT_OK);
  EXPECT_EQ(V_GetDefaultDithering(), 0);
  V_DefaultDithering(DITHER_ORDERED);

  int32_t type = 0;
  EXPECT_EQ(V_GetDefaultMemoryType(nullptr), RESULT_BAD_PARAMETER);
  ASSERT_EQ(V_GetDefaultMemoryType(&type), RESULT_OK);
  EXPECT_EQ(type, TYPE_CONVENTIONAL);
  for (int32_t bad : {0, 2, 4, 8, 256, 512, 1024, 129})
    EXPECT_EQ(V_SetDefaultMemoryType(bad), RESULT_BAD_PARAMETER) << bad;
  EXPECT_EQ(V_SetDefaultMemoryType(TYPE_DISK), RESULT_OK);
  V_GetDefaultMemoryType(&type);
  EXPECT_EQ(type, TYPE_DISK);
  EXPECT_EQ(V_SetDefaultMemoryType(TYPE_CONVENTIONAL), RESULT_OK);
}

TEST(Record, CopyHandleIsShallowAndWhole) {
  BitmapHandle src, dst;
  auto* words = reinterpret_cast<uint8_t*>(&src);
  for (size_t i = 0; i < sizeof src; ++i) words[i] = static_cast<uint8_t>(i * 7 + 1);
  std::memset(&dst, 0, sizeof dst);
  V_CopyBitmapHandle(&dst, &src);
  EXPECT_EQ(std::memcmp(&dst, &src, sizeof src), 0);
  V_CopyBitmapHandle(nullptr, &src);  // no effect, no crash
  std::memset(&dst, 0x11, sizeof dst);
  V_CopyBitmapHandle(&dst, nullptr);
  EXPECT_EQ(dst.Width, 0x11111111);
}

// ---- releasing, resizing and playback values (reach into storage and colour) ----------

TEST(Record, FreeImageKeepsOrReleasesTheAttachments) {
  EXPECT_EQ(V_FreeImage(nullptr, 1), RESULT_OK);
  BitmapHandle b;
  ASSERT_EQ(V_InitBitmap(&b, 4, 4, 8), RESULT_OK);
  const BitmapHandle before = b;
  EXPECT_EQ(V_FreeImage(&b, 0), RESULT_OK);  // no storage: nothing happens
  EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);

  const long base = vk::fault::live_total();
  vk::plat::PaletteEntry e[2] = {{0, 0, 0, 0}, {255, 255, 255, 0}};
  for (int32_t free_attachments : {0, 1}) {
    ASSERT_EQ(V_InitBitmap(&b, 4, 4, 1), RESULT_OK);
    ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
    VK_HPALETTE pal = vk::plat::palette_create(e, 2);
    ASSERT_NE(pal, nullptr);
    b.Palette = pal;
    b.Flags &= ~PALETTE_IS_TABLE;
    EXPECT_EQ(V_FreeImage(&b, free_attachments), RESULT_OK);
    EXPECT_EQ(b.Flags & BITMAP_ALLOCATED, 0u);
    EXPECT_EQ(b.Palette, nullptr);
    EXPECT_EQ(b.Width, 4);  // geometry kept
    if (!free_attachments) {
      EXPECT_EQ(vk::plat::palette_count(pal), 2u);  // survived, still the caller's
      vk::plat::palette_delete(pal);
    }
    EXPECT_EQ(vk::fault::live_total(), base) << free_attachments;
  }
}

TEST(Record, UpdateSizeRecomputesFlatSizesAndNeedsATable) {
  EXPECT_EQ(V_UpdateBitmapSize(nullptr), RESULT_NO_BITMAP);
  BitmapHandle b;
  ASSERT_EQ(V_InitBitmap(&b, 10, 3, 24), RESULT_OK);
  EXPECT_EQ(V_UpdateBitmapSize(&b), RESULT_NO_BITMAP);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  b.Size = 1;
  EXPECT_EQ(V_UpdateBitmapSize(&b), RESULT_OK);
  EXPECT_EQ(b.Size, 3u * 32u);
  V_FreeBitmap(&b);

  // Compressed and super-compressed records without their tables.
  for (uint32_t kind : {BITMAP_COMPRESSED, BITMAP_SUPER_COMPRESSED}) {
    ASSERT_EQ(V_InitBitmap(&b, 10, 3, 1), RESULT_OK);
    b.Flags = BITMAP_ALLOCATED | BITMAP_IN_MEMORY | kind;
    b.Size = 77;
    EXPECT_EQ(V_UpdateBitmapSize(&b), RESULT_NO_BITMAP) << kind;
    EXPECT_EQ(b.Size, 77u);
  }
}

TEST(Record, CopyPlaybackParmsCarriesValuesFlagsAndColours) {
  BitmapHandle src, dst;
  ASSERT_EQ(V_InitBitmap(&src, 2, 2, 24), RESULT_OK);
  ASSERT_EQ(V_InitBitmap(&dst, 2, 2, 24), RESULT_OK);
  EXPECT_EQ(V_CopyPlaybackParms(nullptr, &src), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CopyPlaybackParms(&dst, nullptr), RESULT_BAD_PARAMETER);
  src.Flags = BITMAP_PLAYBACK_FLAG2 | BITMAP_GRAY_FLAG;
  dst.Flags = BITMAP_PLAYBACK_FLAG1 | BITMAP_USER_DATA;
  src.PlaybackValue1 = 1;
  src.PlaybackValue2 = 2;
  src.PlaybackValue3 = 3;
  src.PlaybackValue6 = 6;
  src.PlaybackColor1 = VK_RGB(10, 20, 30);
  src.PlaybackColor2 = VK_RGB(200, 100, 0);
  ASSERT_EQ(V_CopyPlaybackParms(&dst, &src), RESULT_OK);
  EXPECT_EQ(dst.Flags, BITMAP_PLAYBACK_FLAG2 | BITMAP_USER_DATA);  // only the playback flags move
  EXPECT_EQ(dst.PlaybackValue1, 1u);
  EXPECT_EQ(dst.PlaybackValue2, 2u);
  EXPECT_EQ(dst.PlaybackValue3, 3u);
  EXPECT_EQ(dst.PlaybackValue6, 6u);
  EXPECT_EQ(dst.PlaybackColor1, VK_RGB(10, 20, 30));  // true colour to true colour: the same value
  EXPECT_EQ(dst.PlaybackColor2, VK_RGB(200, 100, 0));
}

}  // namespace
