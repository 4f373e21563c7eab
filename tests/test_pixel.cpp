// Single-pixel access: colour values and raw bytes, for every depth and for
// memory, disk and tiled storage, checked against row conversion; colour
// translation between bitmaps; the pixel-position hook of the display table.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "color_helpers.h"
#include "orient_helpers.h"
#include "fault.h"
#include "vkkrn.h"

using vkt::quad;

namespace {

class Pixel : public vkt::LeakCheck {};

// ---- spot checks ----------------------------------------------------------------------

// Colour values of every depth and order are checked against row conversion
// below; here what the matrix cannot reach.
TEST_F(Pixel, ReadEdgeCases) {
  BitmapHandle b;
  EXPECT_EQ(V_GetPixelColor(nullptr, 0, 0), COLOR_INVALID);
  ASSERT_EQ(V_InitBitmap(&b, 8, 2, 1), RESULT_OK);
  EXPECT_EQ(V_GetPixelColor(&b, 0, 0), COLOR_INVALID);  // no storage
  ASSERT_EQ(V_CreateBitmap(&b, 1, 8, 2, 1, 0, nullptr, 2, nullptr, 0), RESULT_OK);
  for (auto [r, c] : {std::pair{0, 8}, {2, 0}, {-1, 0}, {0, -1}})
    EXPECT_EQ(V_GetPixelColor(&b, r, c), COLOR_INVALID) << r << "," << c;
  V_FreeBitmap(&b);
}

TEST_F(Pixel, WriteEdgeCases) {
  BitmapHandle b;
  EXPECT_EQ(V_PutPixelColor(nullptr, 0, 0, 0), RESULT_NO_BITMAP);
  // A palette index is written as it is, with no colour matching.
  std::vector<RGBQUAD> pal = vkt::gray_ramp(16);
  ASSERT_EQ(V_CreateBitmap(&b, 1, 3, 1, 4, 0, pal.data(), 2, nullptr, 0), RESULT_OK);
  const uint8_t zero[4] = {};
  V_PutBitmapRow(&b, zero, 0, 4);
  EXPECT_EQ(V_PutPixelColor(&b, 0, 1, 0x01000003u), RESULT_OK);
  uint8_t byte = 0xEE;
  ASSERT_EQ(V_GetPixelData(&b, &byte, 0, 1, 1), RESULT_OK);
  EXPECT_EQ(byte, 0x03);  // column 1 is the low nibble
  EXPECT_EQ(V_PutPixelColor(&b, 0, 3, 0), RESULT_BAD_AREA);
  EXPECT_EQ(V_PutPixelColor(&b, -1, 0, 0), RESULT_BAD_AREA);
  V_FreeBitmap(&b);
  EXPECT_EQ(V_PutPixelColor(&b, 0, 0, 0), RESULT_NO_BITMAP);

  // A 16-bit gray colour loses its low byte unless a lookup table is in force.
  ASSERT_EQ(V_CreateBitmap(&b, 1, 2, 1, 16, 2, nullptr, 2, nullptr, 0), RESULT_OK);
  EXPECT_EQ(V_PutPixelColor(&b, 0, 0, COLOR_GRAY16 | 0xABCDu), RESULT_OK);
  EXPECT_EQ(V_GetPixelColor(&b, 0, 0), COLOR_GRAY16 | 0xABABu);
  V_FreeBitmap(&b);
}

TEST_F(Pixel, PixelDataSizes) {
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, 1, 8, 1, 3, 0, nullptr, 2, nullptr, 0), RESULT_OK);
  uint8_t buf[8] = {};
  EXPECT_EQ(V_GetPixelData(&b, buf, 0, 2, 1), RESULT_BAD_PARAMETER);  // bits 6-8 need 2 bytes
  EXPECT_EQ(V_GetPixelData(&b, buf, 0, 2, 2), RESULT_OK);
  EXPECT_EQ(V_GetPixelData(&b, buf, 0, 1, 1), RESULT_OK);
  EXPECT_EQ(V_GetPixelData(&b, nullptr, 0, 1, 1), RESULT_NO_BITMAP);
  EXPECT_EQ(V_PutPixelData(&b, nullptr, 0, 1, 1), RESULT_NO_BITMAP);
  EXPECT_EQ(V_GetPixelData(&b, buf, 1, 0, 8), RESULT_BAD_AREA);
  V_FreeBitmap(&b);
  EXPECT_EQ(V_GetPixelData(&b, buf, 0, 0, 8), RESULT_NO_BITMAP);
  struct Case {
    int32_t bits, column, bytes;
  };
  for (const Case c : {Case{12, 0, 2}, Case{12, 1, 2}, Case{24, 3, 3}, Case{64, 1, 8}, Case{5, 1, 2}, Case{5, 0, 1}}) {
    ASSERT_EQ(V_CreateBitmap(&b, 1, 4, 1, c.bits, c.bits == 12 ? 2 : 0, nullptr, 2, nullptr, 0), RESULT_OK);
    EXPECT_EQ(V_GetPixelData(&b, buf, 0, c.column, c.bytes - 1), RESULT_BAD_PARAMETER) << c.bits;
    EXPECT_EQ(V_GetPixelData(&b, buf, 0, c.column, c.bytes), RESULT_OK) << c.bits;
    V_FreeBitmap(&b);
  }
}

// ---- agreement with row conversion, every depth and storage kind ------------------------

struct Format {
  int32_t bits, order;
};
const Format kFormats[] = {{1, 0},  {2, 0},  {3, 0},  {4, 0},  {5, 0},  {6, 0},  {7, 0},  {8, 0},
                           {12, 2}, {16, 0}, {16, 1}, {16, 2}, {24, 0}, {24, 1}, {24, 5}, {32, 0}, {32, 1},
                           {48, 0}, {48, 1}, {64, 0}, {64, 1}};
enum class Store { memory, disk, tiled };

bool is_gray(const Format& f) { return f.bits == 12 || (f.bits == 16 && f.order == 2); }

// Raw value of pixel x of a packed row, colour channels only (the fourth
// byte or word of 32 and 64 bits is left out).
uint64_t pixel_value(const uint8_t* row, int32_t bits, int32_t x) {
  return vkt::ref_pixel(row, bits, uint32_t(x)) & (bits == 32 ? 0xFFFFFFu : bits == 64 ? 0xFFFFFFFFFFFFu : ~0ull);
}

// Colour value of every pixel of a row by row conversion.
std::vector<uint32_t> row_colours(const uint8_t* row, const Format& f, const RGBQUAD* pal, int32_t width) {
  std::vector<uint8_t> buf(V_CalcConvertSize(width, f.bits, width, 48) + 16);
  std::memcpy(buf.data(), row, ((width * f.bits + 31) / 32) * 4);
  std::vector<uint32_t> out(width);
  if (is_gray(f)) {
    EXPECT_EQ(V_ConvertBuffer(buf.data(), width, f.bits, 48, ORDER_GRAY, ORDER_BGR, nullptr, nullptr), RESULT_OK);
    for (int32_t x = 0; x < width; ++x) out[x] = COLOR_GRAY16 | buf[6 * x] | buf[6 * x + 1] << 8;
  } else {
    EXPECT_EQ(V_ConvertBuffer(buf.data(), width, f.bits, 24, f.order, ORDER_BGR, pal, nullptr), RESULT_OK);
    for (int32_t x = 0; x < width; ++x) out[x] = VK_RGB(buf[3 * x + 2], buf[3 * x + 1], buf[3 * x]);
  }
  return out;
}

// Raw value row conversion makes of one RGB colour.
uint64_t converted_value(uint32_t colour, const Format& f, const RGBQUAD* pal) {
  uint8_t buf[16] = {static_cast<uint8_t>(colour >> 16), static_cast<uint8_t>(colour >> 8),
                     static_cast<uint8_t>(colour)};
  EXPECT_EQ(V_ConvertBuffer(buf, 1, 24, f.bits, ORDER_BGR, f.order, nullptr, pal), RESULT_OK);
  return pixel_value(buf, f.bits, 0);
}

class PixelMatrix : public vkt::LeakCheck, public ::testing::WithParamInterface<std::tuple<Format, Store>> {
 protected:
  void SetUp() override {
    vkt::LeakCheck::SetUp();
    V_GetMemoryThresholds(&reserve_, &tiled_, &tile_, &memory_tiles_, &mapped_);
  }
  void TearDown() override {
    V_SetMemoryThresholds(reserve_, tiled_, tile_, memory_tiles_, mapped_, 31u);
    vkt::LeakCheck::TearDown();
  }
  int32_t reserve_ = 0, tiled_ = 0, tile_ = 0, memory_tiles_ = 0, mapped_ = 0;
};

TEST_P(PixelMatrix, ReadsAndWritesAgreeWithRowConversion) {
  const auto [f, store] = GetParam();
  const int32_t width = 37, height = 9;
  const std::vector<RGBQUAD> pal = f.bits <= 8 ? vkt::random_palette(1 << f.bits, 3 + f.bits) : std::vector<RGBQUAD>{};
  const RGBQUAD* p = pal.empty() ? nullptr : pal.data();
  int32_t type = TYPE_CONVENTIONAL;
  if (store == Store::disk) type = TYPE_DISK;
  if (store == Store::tiled) {
    // Two rows per tile; one tile in memory, the rest in temp files, one mapped at a time.
    const int32_t bpl = static_cast<int32_t>(((width * f.bits + 31) / 32) * 4);
    ASSERT_EQ(V_SetMemoryThresholds(0, 0, 2 * bpl, 1, 1,
                                    THRESHOLD_TILE_SIZE | THRESHOLD_MEMORY_TILES | THRESHOLD_MAPPED_TILES),
              RESULT_OK);
    type = TYPE_TILED;
  }
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, type, width, height, f.bits, f.order, p, 2, nullptr, 0), RESULT_OK);
  int32_t kind = 0;
  ASSERT_EQ(V_GetBitmapMemoryInfo(&b, &kind, nullptr, nullptr, nullptr, nullptr, nullptr), RESULT_OK);
  ASSERT_EQ(kind, store == Store::memory ? 1 : store == Store::disk ? 128 : 4);
  vkt::fill_random(&b, 1000 + f.bits * 7 + f.order);
  std::vector<uint8_t> px = vkt::read_pixels(&b);
  const uint32_t bpl = b.BytesPerLine;

  // Reads.
  for (int32_t y = 0; y < height; ++y) {
    const std::vector<uint32_t> want = row_colours(px.data() + y * bpl, f, p, width);
    for (int32_t x = 0; x < width; ++x)
      ASSERT_EQ(V_GetPixelColor(&b, y, x), want[x]) << "row " << y << " col " << x;
  }

  // Raw bytes: what row access holds at the pixel's byte.
  for (int32_t x : {0, 1, 2, 5, width - 1}) {
    const int32_t first = x * f.bits / 8, n = ((x + 1) * f.bits + 7) / 8 - first;
    uint8_t raw[8] = {};
    ASSERT_EQ(V_GetPixelData(&b, raw, 3, x, 8), RESULT_OK);
    EXPECT_EQ(std::memcmp(raw, px.data() + 3 * bpl + first, n), 0) << "col " << x;
    raw[0] ^= 0xFF;
    ASSERT_EQ(V_PutPixelData(&b, raw, 3, x, n), RESULT_OK);
    px[3 * bpl + first] ^= 0xFF;
  }
  ASSERT_EQ(vkt::read_pixels(&b), px);

  // Writes: the pixel gets what row conversion makes of the colour, and every
  // other bit of the row stays.
  std::mt19937 rng(f.bits * 31 + f.order);
  for (int32_t y : {0, 4, height - 1}) {
    for (int32_t x = 0; x < width; x += 3) {
      const uint32_t colour = rng() & 0x00FFFFFFu;
      ASSERT_EQ(V_PutPixelColor(&b, y, x, colour), RESULT_OK);
      std::vector<uint8_t> after(bpl);
      ASSERT_EQ(V_GetBitmapRow(&b, after.data(), static_cast<uint32_t>(y), static_cast<int32_t>(bpl)),
                static_cast<int32_t>(bpl));
      ASSERT_EQ(pixel_value(after.data(), f.bits, x), converted_value(colour, f, p)) << "row " << y << " col " << x;
      for (int32_t other = 0; other < width; ++other)
        if (other != x)
          ASSERT_EQ(pixel_value(after.data(), f.bits, other), pixel_value(px.data() + y * bpl, f.bits, other))
              << "neighbour " << other << " of " << x;
      if (f.bits == 32 || f.bits == 64) {
        const int32_t bytes = f.bits / 8;
        EXPECT_EQ(std::memcmp(after.data() + x * bytes + bytes - bytes / 4,
                              px.data() + y * bpl + x * bytes + bytes - bytes / 4, bytes / 4),
                  0)
            << "the fourth channel is kept";
      }
      std::memcpy(px.data() + y * bpl, after.data(), bpl);
    }
  }
  V_FreeBitmap(&b);
}

INSTANTIATE_TEST_SUITE_P(AllDepths, PixelMatrix,
                         ::testing::Combine(::testing::ValuesIn(kFormats),
                                            ::testing::Values(Store::memory, Store::disk, Store::tiled)),
                         [](const auto& info) {
                           const Format f = std::get<0>(info.param);
                           const Store s = std::get<1>(info.param);
                           return std::to_string(f.bits) + "o" + std::to_string(f.order) +
                                  (s == Store::memory ? "Memory" : s == Store::disk ? "Disk" : "Tiled");
                         });

TEST_F(Pixel, GrayLookupTable) {
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, 1, 4, 1, 12, 2, nullptr, 2, nullptr, 0), RESULT_OK);
  b.GrayLut = static_cast<uint32_t*>(V_OsAlloc(4096 * 4));
  ASSERT_NE(b.GrayLut, nullptr);
  b.GrayLutLength = 4096;
  for (uint32_t i = 0; i < 4096; ++i) b.GrayLut[i] = i < 16 ? i * 0x000011u : 0x00808080u;  // blues, then gray
  b.Flags |= BITMAP_GRAY_FLAG;
  // A colour is matched to a table entry; reading gives the entry's colour.
  ASSERT_EQ(V_PutPixelColor(&b, 0, 1, VK_RGB(0, 0, 0x44)), RESULT_OK);
  EXPECT_EQ(V_GetPixelColor(&b, 0, 1), VK_RGB(0, 0, 0x44));
  // A 16-bit gray value keeps its form: it is the sample itself.
  ASSERT_EQ(V_PutPixelColor(&b, 0, 2, COLOR_GRAY16 | 0x0050u), RESULT_OK);
  EXPECT_EQ(V_GetPixelColor(&b, 0, 2), VK_RGB(0, 0, 0x55));  // sample 5
  V_FreeBitmap(&b);
}

// Compressed 1-bit rows are reached by pixel, not by byte: pixel access must
// still see the same pixels as on a flat bitmap.
TEST_F(Pixel, CompressedRowsMatchFlatRows) {
  BitmapHandle flat, packed;
  ASSERT_EQ(V_CreateBitmap(&flat, TYPE_CONVENTIONAL, 29, 3, 1, 0, nullptr, 2, nullptr, 0), RESULT_OK);
  ASSERT_EQ(V_CreateBitmap(&packed, TYPE_COMPRESSED, 29, 3, 1, 0, nullptr, 2, nullptr, 0), RESULT_OK);
  ASSERT_NE(packed.Flags & BITMAP_COMPRESSED, 0u);
  std::mt19937 rng(8);
  for (int i = 0; i < 60; ++i) {
    const int32_t y = static_cast<int32_t>(rng() % 3), x = static_cast<int32_t>(rng() % 29);
    const uint32_t c = (rng() & 1) ? 0x00FFFFFFu : 0u;
    ASSERT_EQ(V_PutPixelColor(&flat, y, x, c), RESULT_OK);
    ASSERT_EQ(V_PutPixelColor(&packed, y, x, c), RESULT_OK);
  }
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 29; ++x) {
      ASSERT_EQ(V_GetPixelColor(&packed, y, x), V_GetPixelColor(&flat, y, x)) << y << "," << x;
      uint8_t a = 0, b = 0;
      ASSERT_EQ(V_GetPixelData(&flat, &a, y, x, 1), RESULT_OK);
      ASSERT_EQ(V_GetPixelData(&packed, &b, y, x, 1), RESULT_OK);
      ASSERT_EQ(a, b) << y << "," << x;
    }
  V_FreeBitmap(&flat);
  V_FreeBitmap(&packed);
}

// ---- the pixel-position hook -------------------------------------------------------------

int32_t VK_CALL allow_even_columns(BitmapHandle*, int32_t, int32_t column) { return (column & 1) == 0; }

TEST_F(Pixel, PositionHookReplacesRangeCheck) {
  const vkt::Hooks hooks{{16, vkt::hook(allow_even_columns)}};
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, 1, 4, 2, 8, 0, nullptr, 2, nullptr, 0), RESULT_OK);
  const int32_t odd = V_PutPixelColor(&b, 0, 1, 0);
  const int32_t even = V_PutPixelColor(&b, 0, 2, 0);
  const int32_t outside = V_PutPixelColor(&b, 0, 4, 0);  // allowed by the hook, still outside
  EXPECT_EQ(odd, RESULT_BAD_AREA);
  EXPECT_EQ(even, RESULT_OK);
  EXPECT_EQ(outside, RESULT_BAD_AREA);
  V_FreeBitmap(&b);
}

// ---- colour translation ----------------------------------------------------------------

TEST_F(Pixel, TranslateBitmapColor) {
  const std::vector<RGBQUAD> pal = {quad(0, 0, 0), quad(255, 0, 0), quad(0, 255, 0), quad(0, 0, 255)};
  std::vector<RGBQUAD> other = pal;
  std::swap(other[1], other[3]);
  BitmapHandle src, same, diff, deep, gray16;
  ASSERT_EQ(V_CreateBitmap(&src, 1, 2, 2, 2, 0, pal.data(), 2, nullptr, 0), RESULT_OK);
  ASSERT_EQ(V_CreateBitmap(&same, 1, 2, 2, 2, 0, pal.data(), 2, nullptr, 0), RESULT_OK);
  ASSERT_EQ(V_CreateBitmap(&diff, 1, 2, 2, 2, 0, other.data(), 2, nullptr, 0), RESULT_OK);
  ASSERT_EQ(V_CreateBitmap(&deep, 1, 2, 2, 24, 1, nullptr, 2, nullptr, 0), RESULT_OK);
  ASSERT_EQ(V_CreateBitmap(&gray16, 1, 2, 2, 16, 2, nullptr, 2, nullptr, 0), RESULT_OK);

  const uint32_t red_index = COLOR_PALETTE_INDEX | 1;
  EXPECT_EQ(V_TranslateBitmapColor(&deep, &src, red_index), VK_RGB(255, 0, 0));
  EXPECT_EQ(V_TranslateBitmapColor(&same, &src, red_index), red_index);
  EXPECT_EQ(V_TranslateBitmapColor(&diff, &src, red_index), COLOR_PALETTE_INDEX | 3);
  // RGB colours: nearest index for palette bitmaps, unchanged otherwise.
  EXPECT_EQ(V_TranslateBitmapColor(&diff, &src, VK_RGB(0, 250, 5)), COLOR_PALETTE_INDEX | 2);
  EXPECT_EQ(V_TranslateBitmapColor(&deep, &src, VK_RGB(1, 2, 3)), VK_RGB(1, 2, 3));
  // 16-bit gray: RGB for colour bitmaps, unchanged for gray ones without a table.
  EXPECT_EQ(V_TranslateBitmapColor(&deep, &src, COLOR_GRAY16 | 0x8040u), VK_RGB(0x80, 0x80, 0x80));
  EXPECT_EQ(V_TranslateBitmapColor(&gray16, &src, COLOR_GRAY16 | 0x8040u), COLOR_GRAY16 | 0x8040u);
  // An index the source cannot resolve stands for black.
  BitmapHandle no_palette = src;
  no_palette.Palette = nullptr;
  EXPECT_EQ(V_TranslateBitmapColor(&diff, &no_palette, red_index), COLOR_PALETTE_INDEX | 0);
  EXPECT_EQ(V_TranslateBitmapColor(&deep, &no_palette, red_index), 0u);

  for (BitmapHandle* b : {&src, &same, &diff, &deep, &gray16}) V_FreeBitmap(b);
}

}  // namespace
