// Gray classification of palettes and bitmaps, and V_GrayScaleBitmap:
// agreement with row conversion for every source depth, all-or-nothing
// behaviour when the status callback stops it or an allocation fails.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "color_helpers.h"
#include "fault.h"
#include "vkkrn.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_GrayScaleBitmap);

using vkt::quad;

namespace {

class Gray : public vkt::LeakCheck {};

std::vector<RGBQUAD> ramp(std::initializer_list<int> levels) {
  std::vector<RGBQUAD> v;
  for (int l : levels) v.push_back(quad(l, l, l));
  return v;
}

TEST_F(Gray, PaletteClassification) {
  std::vector<RGBQUAD> up = vkt::gray_ramp(256), down;
  for (int i = 255; i >= 0; --i) down.push_back(quad(i, i, i));
  std::vector<RGBQUAD> sixteen = vkt::gray_ramp(16);
  std::vector<RGBQUAD> off_gray = sixteen, off_ramp = sixteen;
  off_gray[5] = quad(85, 85, 86);
  off_ramp[5] = quad(86, 86, 86);
  struct Case {
    const char* name;
    std::vector<RGBQUAD> pal;
    int32_t want;
  };
  const Case cases[] = {
      {"rising 256", up, 1},
      {"falling 256", down, 2},
      {"rising 16", sixteen, 1},
      {"not gray", off_gray, 0},
      {"gray, no ramp", off_ramp, 3},
      {"one mid gray", ramp({128}), 3},
      {"one black", ramp({0}), 1},
      {"one white", ramp({255}), 2},
      {"truncated step", ramp({0, 127, 254}), 1},
      {"rounded step", ramp({0, 128, 255}), 3},
      {"falling 3", ramp({255, 128, 1}), 2},
      {"starts mid", ramp({128, 0}), 3},
  };
  for (const Case& c : cases)
    EXPECT_EQ(V_IsGrayScalePalette(c.pal.data(), static_cast<int32_t>(c.pal.size())), c.want) << c.name;
  EXPECT_EQ(V_IsGrayScalePalette(nullptr, 4), RESULT_BAD_PARAMETER);
  // A count of 0 still looks at the first entry.
  EXPECT_EQ(V_IsGrayScalePalette(up.data(), 0), 1);
}

TEST_F(Gray, BitmapClassification) {
  EXPECT_EQ(V_IsGrayScaleBitmap(nullptr), RESULT_BAD_PARAMETER);
  std::vector<RGBQUAD> down;
  for (int i = 15; i >= 0; --i) down.push_back(quad(17 * i, 17 * i, 17 * i));
  // Random colour pixels, gray levels, the fixed colour palette, a falling gray ramp.
  const struct {
    int32_t bits;
    const RGBQUAD* pal;
    int32_t want;
  } cases[] = {{24, nullptr, 0}, {0, nullptr, 1}, {8, nullptr, 0}, {4, down.data(), 2}};
  BitmapHandle b;
  for (const auto& c : cases) {
    ASSERT_EQ(V_CreateBitmap(&b, 1, 4, 4, c.bits, c.bits == 24, c.pal, 2, nullptr, 0), RESULT_OK);
    vkt::fill_random(&b, 1);
    EXPECT_EQ(V_IsGrayScaleBitmap(&b), c.want) << c.bits;
    V_FreeBitmap(&b);
  }

  // Gray order: gray unless a lookup table in force holds a colour.
  ASSERT_EQ(V_CreateBitmap(&b, 1, 4, 4, 12, 2, nullptr, 2, nullptr, 0), RESULT_OK);
  EXPECT_EQ(V_IsGrayScaleBitmap(&b), 1);
  b.GrayLut = static_cast<uint32_t*>(V_OsAlloc(4096 * 4));
  ASSERT_NE(b.GrayLut, nullptr);
  b.GrayLutLength = 4096;
  for (uint32_t i = 0; i < 4096; ++i) b.GrayLut[i] = (i >> 4) * 0x010101u;
  b.GrayLut[4095] = 0x00FF0000u;  // red
  EXPECT_EQ(V_IsGrayScaleBitmap(&b), 1);  // not in force without the flag
  b.Flags |= BITMAP_GRAY_FLAG;
  EXPECT_EQ(V_IsGrayScaleBitmap(&b), 0);
  b.HighBit = 10;  // only the first 2^11 entries are reachable
  EXPECT_EQ(V_IsGrayScaleBitmap(&b), 1);
  V_FreeBitmap(&b);
}

TEST_F(Gray, ArgumentChecks) {
  BitmapHandle b;
  EXPECT_EQ(V_GrayScaleBitmap(nullptr, 8), RESULT_NO_BITMAP);
  ASSERT_EQ(V_InitBitmap(&b, 4, 4, 24), RESULT_OK);
  EXPECT_EQ(V_GrayScaleBitmap(&b, 8), RESULT_NO_BITMAP);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  EXPECT_EQ(V_GrayScaleBitmap(&b, 24), RESULT_BAD_BITS_PER_PIXEL);
  EXPECT_EQ(V_GrayScaleBitmap(&b, 17), RESULT_BAD_BITS_PER_PIXEL);
  EXPECT_EQ(V_GrayScaleBitmap(&b, 10), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GrayScaleBitmap(&b, 0), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&b);
}

TEST_F(Gray, AlreadyGrayIsLeftAlone) {
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, 1, 6, 3, 12, 2, nullptr, 3, nullptr, 0), RESULT_OK);
  vkt::fill_random(&b, 4);
  const BitmapHandle before = b;
  const std::vector<uint8_t> px = vkt::read_pixels(&b);
  vkt::StatusRecorder progress;
  EXPECT_EQ(V_GrayScaleBitmap(&b, 12), RESULT_OK);
  EXPECT_TRUE(vkt::same_record(before, b));
  EXPECT_EQ(vkt::read_pixels(&b), px);
  EXPECT_EQ(progress.seen, (std::vector<int32_t>{0, 100}));
  V_FreeBitmap(&b);
}

// Source formats: depth, order.
struct Format {
  int32_t bits, order;
};
const Format kSources[] = {{1, 0},  {2, 0},  {3, 0},  {4, 0},  {5, 0},  {6, 0},  {7, 0},  {8, 0},
                           {12, 2}, {16, 0}, {16, 1}, {16, 2}, {24, 0}, {24, 1}, {24, 5}, {32, 0}, {32, 1},
                           {48, 0}, {48, 1}, {64, 0}, {64, 1}};

// Value of pixel x in a packed 8-, 12- or 16-bit gray row.
uint32_t gray_value(const uint8_t* row, int32_t bits, int32_t x) {
  if (bits == 8) return row[x];
  if (bits == 16) return row[2 * x] | row[2 * x + 1] << 8;
  const uint8_t* p = row + 3 * (x / 2);
  return (x & 1) ? (p[1] >> 4) | (p[2] << 4) : p[0] | ((p[1] & 15) << 8);
}

// Expected gray row of one source row, computed independently of the
// conversion under test: row conversion to gray levels, then the level
// scaling; gray sources rescale their samples directly.
std::vector<uint32_t> expected_gray(const uint8_t* src, const Format& f, const std::vector<RGBQUAD>& pal,
                                    int32_t width, int32_t bits) {
  std::vector<uint32_t> out(width);
  const bool gray_source = f.bits == 12 || (f.bits == 16 && f.order == 2);
  if (gray_source) {
    for (int32_t x = 0; x < width; ++x) {
      const uint32_t v = gray_value(src, f.bits, x);
      const uint32_t from_mask = (1u << f.bits) - 1, to_mask = (1u << bits) - 1;
      out[x] = f.bits >= bits ? v >> (f.bits - bits) : v * to_mask / from_mask;
    }
    return out;
  }
  std::vector<uint8_t> buf(V_CalcConvertSize(width, f.bits, width, 24) + 16);
  std::memcpy(buf.data(), src, ((width * f.bits + 31) / 32) * 4);
  EXPECT_EQ(V_ConvertBuffer(buf.data(), width, f.bits, 0, f.order, 0, pal.empty() ? nullptr : pal.data(), nullptr),
            RESULT_OK);
  for (int32_t x = 0; x < width; ++x)
    out[x] = bits == 8 ? buf[x] : buf[x] * ((1u << bits) - 1) / 255;
  return out;
}

class GrayConvert : public vkt::LeakCheck,
                    public ::testing::WithParamInterface<std::tuple<Format, int32_t>> {};

TEST_P(GrayConvert, AgreesWithRowConversion) {
  const auto [f, bits] = GetParam();
  const int32_t width = 23, height = 5;
  const std::vector<RGBQUAD> pal = f.bits <= 8 ? vkt::random_palette(1 << f.bits, f.bits) : std::vector<RGBQUAD>{};
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, TYPE_CONVENTIONAL, width, height, f.bits, f.order, pal.empty() ? nullptr : pal.data(),
                           7, nullptr, 0),
            RESULT_OK);
  b.XResolution = 300;
  vkt::fill_random(&b, 100 + f.bits);
  const BitmapHandle before = b;
  const std::vector<uint8_t> src = vkt::read_pixels(&b);

  ASSERT_EQ(V_GrayScaleBitmap(&b, bits), RESULT_OK);
  EXPECT_EQ(b.BitsPerPixel, bits);
  EXPECT_EQ(b.Width, width);
  EXPECT_EQ(b.Height, height);
  EXPECT_EQ(b.ViewPerspective, 7);
  EXPECT_EQ(b.XResolution, 300);
  EXPECT_EQ(V_IsGrayScaleBitmap(&b), 1);
  if (bits == 8) {
    EXPECT_EQ(b.ColorCount, 256u);
  } else {
    EXPECT_EQ(b.Order, ORDER_GRAY);
    EXPECT_EQ(b.LowBit, 0);
    EXPECT_EQ(b.HighBit, bits - 1);
  }
  const std::vector<uint8_t> out = vkt::read_pixels(&b);
  for (int32_t y = 0; y < height; ++y) {
    const std::vector<uint32_t> want = expected_gray(src.data() + y * before.BytesPerLine, f, pal, width, bits);
    for (int32_t x = 0; x < width; ++x)
      ASSERT_EQ(gray_value(out.data() + y * b.BytesPerLine, bits, x), want[x]) << "row " << y << " col " << x;
  }
  V_FreeBitmap(&b);
}

INSTANTIATE_TEST_SUITE_P(AllDepths, GrayConvert,
                         ::testing::Combine(::testing::ValuesIn(kSources), ::testing::Values(8, 12, 16)),
                         [](const auto& info) {
                           const Format f = std::get<0>(info.param);
                           return "from" + std::to_string(f.bits) + "o" + std::to_string(f.order) + "to" +
                                  std::to_string(std::get<1>(info.param));
                         });

TEST_F(Gray, NarrowBitRangeIsRescaled) {
  // Samples held in bits 4..11 of a 16-bit gray bitmap become 8-bit levels.
  BitmapHandle b;
  ASSERT_EQ(V_CreateBitmap(&b, 1, 4, 1, 16, 2, nullptr, 2, nullptr, 0), RESULT_OK);
  b.LowBit = 4;
  b.HighBit = 11;
  const uint16_t raw[4] = {0x0000, 0x0FF0, 0x0AB5, 0xF120};
  ASSERT_EQ(V_PutBitmapRow(&b, raw, 0, 8), 8);
  ASSERT_EQ(V_GrayScaleBitmap(&b, 8), RESULT_OK);
  uint8_t out[4];
  ASSERT_EQ(V_GetBitmapRow(&b, out, 0, 4), 4);
  EXPECT_EQ(out[0], 0x00);
  EXPECT_EQ(out[1], 0xFF);
  EXPECT_EQ(out[2], 0xAB);
  EXPECT_EQ(out[3], 0x12);
  V_FreeBitmap(&b);
}

// ---- all or nothing ---------------------------------------------------------------------

void make_source(BitmapHandle* b, int32_t memory_type) {
  const std::vector<RGBQUAD> pal = vkt::random_palette(16, 77);
  ASSERT_EQ(V_CreateBitmap(b, memory_type, 19, 12, 4, 0, pal.data(), 2, nullptr, 0), RESULT_OK);
  vkt::fill_random(b, 5);
}

TEST_F(Gray, StoppedByCallbackLeavesBitmapIntact) {
  for (int stop = 1;; ++stop) {
    BitmapHandle b;
    make_source(&b, TYPE_CONVENTIONAL);
    const BitmapHandle before = b;
    const std::vector<uint8_t> px = vkt::read_pixels(&b);
    const long live = vk::fault::live_total();
    int32_t r;
    {
      const vkt::CancelAt cancel(stop);
      r = V_GrayScaleBitmap(&b, 16);
    }
    if (r == RESULT_OK) {
      EXPECT_GT(stop, 2);  // at least 0 and 100 were reported
      V_FreeBitmap(&b);
      break;
    }
    EXPECT_EQ(r, 0) << "stop " << stop;
    EXPECT_TRUE(vkt::same_record(before, b)) << "stop " << stop;
    EXPECT_EQ(vkt::read_pixels(&b), px);
    EXPECT_EQ(vk::fault::live_total(), live) << "stop " << stop;
    V_FreeBitmap(&b);
    ASSERT_LT(stop, 200);
  }
}

TEST_F(Gray, AllocationFailureLeavesBitmapIntact) {
  for (int32_t type : {TYPE_CONVENTIONAL, TYPE_DISK}) {
    BitmapHandle b;
    vkt::Snapshot before;
    vkt::fault_sweep([&] { make_source(&b, type), before = vkt::Snapshot(&b); }, [&] { return V_GrayScaleBitmap(&b, 8); },
                     [&](const vkt::SweepRun& run) {
                       vkt::expect_kept(run, before);
                       if (run.result == RESULT_OK) EXPECT_EQ(b.BitsPerPixel, 8);
                       V_FreeBitmap(&b);
                     });
  }
}

}  // namespace
