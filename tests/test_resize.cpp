// Resize: the nearest-neighbour scan line against a plain reference for
// every depth, row streaming, whole-bitmap sizing by every method, the
// row-segment reader against the whole-bitmap calls, and what a failure or
// a cancelled run leaves behind.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "fault_sweep.h"
#include "orient_helpers.h"

VKT_SWEEPS(V_SizeBitmap, V_ResizeBitmapExt, V_ResizeBitmap, V_StartResize, V_StartResizeBitmap, V_GetResizedRowCol);

namespace {

using namespace vkt;

// Writes pixel x of a packed row (the reference writer, no library code).
void ref_put(uint8_t* row, int32_t bits, uint32_t x, uint64_t v) {
  if (bits < 8) {
    for (int32_t i = 0; i < bits; ++i) {
      const uint64_t bit = uint64_t{x} * bits + i;
      const uint8_t m = uint8_t(0x80 >> (bit % 8));
      if ((v >> (bits - 1 - i)) & 1) row[bit / 8] |= m;
      else row[bit / 8] &= uint8_t(~m);
    }
  } else if (bits == 12) {
    uint8_t* p = row + (x / 2) * 3;
    if (x % 2) p[1] = uint8_t((p[1] & 0x0F) | ((v & 15) << 4)), p[2] = uint8_t(v >> 4);
    else p[0] = uint8_t(v), p[1] = uint8_t((p[1] & 0xF0) | ((v >> 8) & 15));
  } else {
    for (int32_t i = 0; i < bits / 8; ++i) row[size_t(x) * (bits / 8) + i] = uint8_t(v >> (8 * i));
  }
}

// ---- the scan line -----------------------------------------------------------------

struct Walk {
  int32_t start, step, acc, rem, count, den;
};

// The source pixel of destination pixel i, as the formula states it.
int64_t mapped(const Walk& w, int64_t i, bool whole_step) {
  const int64_t step = whole_step ? w.step : 0;
  return w.start + (w.acc + i * (step * w.den + w.rem)) / w.den;
}

TEST(ResizeScanLine, EveryDepthFollowsTheMappingFormulaForwardAndInReverse) {
  const Walk walks[] = {{0, 0, 0, 3, 40, 7},  {0, 2, 0, 1, 13, 3},  {5, 1, 2, 5, 20, 9},
                        {3, 0, 6, 7, 33, 7},  {1, 3, 0, 0, 9, 4},   {11, 0, 0, 11, 17, 17}};
  std::mt19937 rng(7);
  for (int32_t bits : kDepths) {
    for (const Walk& w : walks) {
      for (int expand = 0; expand < 2; ++expand) {
        SCOPED_TRACE(::testing::Message() << bits << " bits, start " << w.start << " step " << w.step << " rem "
                                          << w.rem << " den " << w.den << " expand " << expand);
        // A source long enough for the walk; sub-byte and 12-bit sources
        // begin at the byte holding the start pixel.
        const bool packed = bits < 8 || bits == 12;
        const int64_t last = mapped(w, w.count, true) + 2;
        std::vector<uint8_t> row(size_t((last + 2) * bits / 8 + 16));
        for (auto& b : row) b = uint8_t(rng());
        const uint8_t* src = packed ? row.data() + uint64_t(w.start) * bits / 8
                                    : row.data() + size_t(w.start) * (bits / 8);
        const int32_t dst_bytes = (w.count * bits + 7) / 8 + 3;
        std::vector<uint8_t> dst(size_t(dst_bytes) + 8, 0xA5), rev(dst);
        V_GetResizedScanLine(bits, dst_bytes, packed ? w.start : 0, w.step, w.acc, w.rem, src, dst.data(), w.count,
                             w.den, expand);
        V_ReverseGetResizedScanLine(bits, dst_bytes, packed ? w.start : 0, w.step, w.acc, w.rem, src, rev.data(),
                                    w.count, w.den, expand);
        const bool whole = !(packed && expand);
        for (int32_t i = 0; i < w.count; ++i) {
          const uint64_t want = ref_pixel(row.data(), bits, uint32_t(mapped(w, i, whole)));
          ASSERT_EQ(ref_pixel(dst.data(), bits, uint32_t(i)), want) << "pixel " << i;
          ASSERT_EQ(ref_pixel(rev.data(), bits, uint32_t(i)), want) << "reverse pixel " << i;
        }
        // The plain walk clears the rest of the row below 8 and at 12 bits
        // (4 bits: only the nibble after an odd last pixel); deeper rows and
        // the reverse walk touch nothing after the last pixel.
        const uint64_t end_bit = uint64_t(w.count) * bits;
        if (bits == 12) {
          if (w.count % 2) EXPECT_EQ(dst[size_t(w.count / 2) * 3 + 1] & 0xF0, 0);
          for (size_t b = size_t((end_bit + 7) / 8); b < size_t(dst_bytes); ++b) ASSERT_EQ(dst[b], 0) << "byte " << b;
        } else if (packed && bits != 4) {
          for (uint64_t b = end_bit; b < uint64_t(dst_bytes) * 8; ++b)
            ASSERT_EQ((dst[b / 8] >> (7 - b % 8)) & 1, 0) << "bit " << b;
        } else if (bits == 4 && w.count % 2) {
          EXPECT_EQ(dst[size_t(w.count / 2)] & 0x0F, 0);
        }
        if (!packed) EXPECT_EQ(dst[size_t((end_bit + 7) / 8)], 0xA5);
        EXPECT_EQ(rev[size_t((end_bit + 7) / 8) + 1], 0xA5);
      }
    }
  }
}

// The reverse walk grows a row in place: source and destination are one buffer.
TEST(ResizeScanLine, TheReverseWalkGrowsARowInPlace) {
  std::mt19937 rng(3);
  for (int32_t bits : kDepths) {
    for (int32_t old_w : {1, 7, 33}) {
      const int32_t new_w = old_w * 3 + 2;
      std::vector<uint8_t> row(size_t(new_w) * 8 + 8);
      for (size_t i = 0; i < size_t(old_w) * 8; ++i) row[i] = uint8_t(rng());
      const std::vector<uint8_t> orig = row;
      const Walk w{0, old_w / new_w, 0, old_w % new_w, new_w, new_w};
      V_ReverseGetResizedScanLine(bits, 0, 0, w.step, 0, w.rem, row.data(), row.data(), new_w, new_w, 1);
      for (int32_t i = 0; i < new_w; ++i)
        ASSERT_EQ(ref_pixel(row.data(), bits, uint32_t(i)), ref_pixel(orig.data(), bits, uint32_t(mapped(w, i, true))))
            << bits << " bits, width " << old_w << ", pixel " << i;
    }
  }
}

TEST(ResizeScanLine, UnsupportedDepthsAndBadArgumentsWriteNothing) {
  uint8_t src[16] = {1, 2, 3}, dst[16];
  for (int32_t bits : {0, 9, 10, 11, 13, 17, 33, 65}) {
    std::memset(dst, 0x5A, sizeof dst);
    V_GetResizedScanLine(bits, 8, 0, 1, 0, 0, src, dst, 4, 1, 0);
    V_ReverseGetResizedScanLine(bits, 8, 0, 1, 0, 0, src, dst, 4, 1, 0);
    for (uint8_t b : dst) ASSERT_EQ(b, 0x5A) << bits;
  }
  V_GetResizedScanLine(8, 8, 0, 1, 0, 0, src, dst, 4, 0, 0);  // zero denominator
  V_GetResizedScanLine(8, 8, 0, 1, 0, 0, nullptr, dst, 4, 1, 0);
  for (uint8_t b : dst) ASSERT_EQ(b, 0x5A);
}

// ---- row streaming -----------------------------------------------------------------------

struct Stream {
  void* s = nullptr;
  Stream(int32_t ow, int32_t oh, int32_t nw, int32_t nh) { EXPECT_EQ(V_StartResize(ow, oh, nw, nh, &s), RESULT_OK); }
  ~Stream() { V_StopResize(s); }
  int32_t count(int32_t row, int32_t bits = 8) {
    uint8_t buf[4096] = {};
    int32_t w = 0, c = -1;
    const int32_t r = V_Resize(buf, row, bits, &w, &c, s);
    EXPECT_EQ(r, c);
    return c;
  }
};

TEST(ResizeStream, DimensionRuleAndArguments) {
  void* s = nullptr;
  uint8_t row[512] = {};
  int32_t w = 0, c = 0;
  ASSERT_EQ(V_StartResize(200, 100, 0, 50, &s), RESULT_OK);
  EXPECT_EQ(V_Resize(row, 0, 8, &w, &c, s), c);
  EXPECT_EQ(w, 100);  // MulDiv(50, 200, 100)
  EXPECT_EQ(V_Resize(nullptr, 0, 8, &w, &c, s), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_Resize(row, 0, 8, nullptr, &c, s), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StopResize(s), RESULT_OK);
  EXPECT_EQ(V_StopResize(nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartResize(3, 200, 0, 1, &s), RESULT_BAD_PARAMETER);  // width rounds to 0
  EXPECT_EQ(V_StartResize(300, 2, 1, 0, &s), RESULT_BAD_PARAMETER);  // height rounds to 0
  EXPECT_EQ(V_StartResize(10, 10, 0, 0, &s), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartResize(10, 10, -1, 5, &s), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartResize(10, 10, 5, 5, nullptr), RESULT_BAD_PARAMETER);

  // Equal sizes: count 1, the row untouched.
  ASSERT_EQ(V_StartResize(4, 4, 4, 4, &s), RESULT_OK);
  row[0] = 9;
  EXPECT_EQ(V_Resize(row, 2, 8, &w, &c, s), 1);
  EXPECT_EQ(c, 1);
  EXPECT_EQ(row[0], 9);
  V_StopResize(s);
}

TEST(ResizeStream, CountsDependOnlyOnTheRowWhateverTheWalk) {
  {
    Stream d(10, 100, 10, 200);
    for (int32_t y = 0; y < 100; ++y) ASSERT_EQ(d.count(y), 2);
  }
  // 100 to 150: rows alternate 1 and 2, and after a jump the pattern is
  // that of the row number.
  std::vector<int32_t> fwd;
  {
    Stream s(10, 100, 10, 150);
    for (int32_t y = 0; y < 100; ++y) fwd.push_back(s.count(y));
  }
  for (int32_t y = 0; y < 100; ++y) EXPECT_EQ(fwd[size_t(y)], y % 2 ? 2 : 1) << y;
  for (auto [ow, oh, nh] : {std::tuple{10, 100, 150}, {10, 100, 37}, {10, 7, 23}, {10, 64, 64}}) {
    SCOPED_TRACE(::testing::Message() << oh << " -> " << nh);
    std::vector<int32_t> ref;
    {
      Stream s(ow, oh, ow, nh);
      for (int32_t y = 0; y < oh; ++y) ref.push_back(s.count(y));
    }
    int32_t total = 0;
    for (int32_t c : ref) total += c;
    EXPECT_EQ(total, nh);
    Stream back(ow, oh, ow, nh);
    for (int32_t y = oh - 1; y >= 0; --y) ASSERT_EQ(back.count(y), ref[size_t(y)]) << "backwards, row " << y;
    Stream jumps(ow, oh, ow, nh);
    for (int32_t y : {oh / 2, oh / 2 + 1, 3 % oh, oh - 1, oh / 3, oh / 3 - (oh > 3), oh / 3 + 1})
      ASSERT_EQ(jumps.count(y), ref[size_t(y)]) << "jump to row " << y;
  }
  // Shrinking drops rows: V_Resize returns 0 for them and leaves them alone.
  Stream s(10, 100, 10, 30);
  int32_t dropped = 0;
  for (int32_t y = 0; y < 100; ++y) dropped += s.count(y) == 0;
  EXPECT_EQ(dropped, 70);
}

TEST(ResizeStream, RowsAreResizedInPlaceLikeTheScanLine) {
  std::mt19937 rng(5);
  for (int32_t bits : kDepths) {
    for (auto [ow, nw] : {std::pair{9, 31}, {31, 9}, {16, 16}, {5, 4}}) {
      std::vector<uint8_t> row(size_t(std::max(ow, nw)) * 8 + 8);
      for (size_t i = 0; i < size_t(ow) * 8; ++i) row[i] = uint8_t(rng());
      const std::vector<uint8_t> orig = row;
      void* s = nullptr;
      ASSERT_EQ(V_StartResize(ow, 4, nw, 8, &s), RESULT_OK);
      int32_t w = 0, c = 0;
      EXPECT_EQ(V_Resize(row.data(), 0, bits, &w, &c, s), 2);
      V_StopResize(s);
      const Walk walk{0, ow / nw, 0, ow % nw, nw, nw};
      for (int32_t i = 0; i < nw; ++i)
        ASSERT_EQ(ref_pixel(row.data(), bits, uint32_t(i)), ref_pixel(orig.data(), bits, uint32_t(mapped(walk, i, true))))
            << bits << " bits " << ow << " -> " << nw << " pixel " << i;
    }
  }
}


// ---- whole bitmaps -----------------------------------------------------------------------

class Resize : public OrientTest {
 protected:
  // A bitmap whose pixels are given row-major (values of the depth).
  BitmapHandle from_values(int32_t w, int32_t h, int32_t bits, const std::vector<uint64_t>& v, bool gray = true) {
    BitmapHandle b = init(w, h, bits);
    EXPECT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
    if (bits <= 8 && gray) EXPECT_EQ(V_CreateBitmapGrayPalette(&b), RESULT_OK);
    if (bits == 12 || (bits == 16 && gray)) b.Order = ORDER_GRAY;
    std::vector<uint8_t> row(b.BytesPerLine + 8);
    for (int32_t y = 0; y < h; ++y) {
      std::fill(row.begin(), row.end(), 0);
      for (int32_t x = 0; x < w; ++x) ref_put(row.data(), bits, uint32_t(x), v[size_t(y) * w + x]);
      EXPECT_GT(V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(b.BytesPerLine)), 0);
    }
    return b;
  }
  // An allocated destination like src (palette, order, view) of w x h x bits.
  BitmapHandle like(BitmapHandle* src, int32_t w, int32_t h, int32_t bits) {
    BitmapHandle d;
    EXPECT_EQ(V_DupBitmapNewDim(&d, src, w, h, bits, DUP_ALLOCATE | DUP_OWN_PALETTE), RESULT_OK);
    d.Order = src->Order;
    d.DitheringMethod = src->DitheringMethod;
    return d;
  }
};

TEST_F(Resize, AConstantImageStaysConstantUnderEveryMethodAndDepth) {
  const uint32_t methods[] = {SIZE_NEAREST, SIZE_ONE_BIT_DENSITY, SIZE_RESAMPLE, SIZE_SMOOTH};
  const std::pair<int32_t, int32_t> sizes[] = {{7, 5}, {40, 23}, {3, 30}, {29, 2}};
  for (int32_t bits : kDepths) {
    const uint64_t value = bits == 16 ? 0x3A5C : bits == 64 ? 0x1234'5678'9ABC'DEF0 : bits == 48 ? 0x1357'9BDF'2468
                         : bits == 32 ? 0x00A0'B0C0 : bits == 24 ? 0x80'40'C0 : bits == 12 ? 0xABC : (1u << bits) - 2;
    for (uint32_t m : methods)
      for (auto [w, h] : sizes) {
        SCOPED_TRACE(::testing::Message() << bits << " bits, flags " << m << ", to " << w << " x " << h);
        BitmapHandle b = from_values(13, 11, bits, std::vector<uint64_t>(13 * 11, value), bits >= 8 && bits != 16);
        b.DitheringMethod = DITHER_FLOYD_STEINBERG;
        ASSERT_EQ(V_SizeBitmap(&b, w, h, m), RESULT_OK);
        ASSERT_EQ(b.Width, w);
        ASSERT_EQ(b.Height, h);
        const Pixels p = pixels_of(&b);
        for (uint64_t got : p.v) ASSERT_EQ(got, value);
        V_FreeBitmap(&b);
      }
  }
}

TEST_F(Resize, AreaAveragingWeighsInHundredthsOfAPixel) {
  // 3 pixels to 2: boxes {100 p0 + 50 p1} and {50 p1 + 100 p2}, over 150.
  BitmapHandle row = from_values(3, 1, 8, {10, 41, 100});
  ASSERT_EQ(V_SizeBitmap(&row, 2, 1, SIZE_RESAMPLE), RESULT_OK);
  EXPECT_EQ(pixels_of(&row).v, (std::vector<uint64_t>{20, 80}));  // 3050/150, 12050/150
  V_FreeBitmap(&row);
  // 5 x 5 to 2 x 2: weights 100, 100, 50 | 50, 100, 100 along each axis; rows
  // first (x 20 + y 40 gives 40y + 16 and 40y + 64), then the columns.
  for (int32_t bits : {8, 16, 24}) {
    std::vector<uint64_t> v;
    for (int32_t y = 0; y < 5; ++y)
      for (int32_t x = 0; x < 5; ++x) {
        const uint64_t g = uint64_t(x * 20 + y * 40);
        v.push_back(bits == 24 ? g * 0x010101 : bits == 16 ? g * 257 : g);
      }
    BitmapHandle b = from_values(5, 5, bits, v);
    ASSERT_EQ(V_SizeBitmap(&b, 2, 2, SIZE_RESAMPLE), RESULT_OK);
    std::vector<uint64_t> want = {48, 96, 144, 192};
    for (auto& w : want) w = bits == 24 ? w * 0x010101 : bits == 16 ? w * 257 : w;
    EXPECT_EQ(pixels_of(&b).v, want) << bits << " bits";
    V_FreeBitmap(&b);
  }
}

TEST_F(Resize, TheSplineOfALinearRampIsTheRamp) {
  // Along x: 12 samples 10 + 20 x to 30 (ratio 0.4; the first sample is
  // repeated once), and the same down the columns.
  std::vector<uint64_t> v;
  for (int32_t y = 0; y < 12; ++y)
    for (int32_t x = 0; x < 12; ++x) v.push_back(uint64_t(10 + 10 * x + 10 * y));
  BitmapHandle b = from_values(12, 12, 8, v);
  ASSERT_EQ(V_SizeBitmap(&b, 30, 30, SIZE_SMOOTH), RESULT_OK);
  const Pixels p = pixels_of(&b);
  for (int32_t y = 2; y < 27; ++y)
    for (int32_t x = 2; x < 27; ++x) {
      const double want = 10 + 10 * (x - 1) * 0.4 + 10 * (y - 1) * 0.4;
      ASSERT_NEAR(double(p.at(x, y)), want, 1.0) << x << "," << y;
    }
  V_FreeBitmap(&b);
}

TEST_F(Resize, NearestPicksTheSteppedPixelAndWritesBottomUpBetweenViews0And2) {
  for (int32_t bits : kDepths)
    for (auto [sw, sh, dw, dh] : {std::tuple{13, 9, 40, 4}, {33, 17, 7, 17}, {5, 5, 5, 11}}) {
      SCOPED_TRACE(::testing::Message() << bits << " bits " << sw << "x" << sh << " -> " << dw << "x" << dh);
      BitmapHandle src = make(Store::memory, sw, sh, bits, uint32_t(bits));
      src.ViewPerspective = 0;
      const Pixels sp = pixels_of(&src);
      for (int32_t view : {0, 2}) {
        BitmapHandle dst = like(&src, dw, dh, bits);
        dst.ViewPerspective = view;
        ASSERT_EQ(V_ResizeBitmap(&src, &dst), RESULT_OK);
        const Pixels dp = pixels_of(&dst);
        const auto xs = [&](int64_t i) { return sw <= dw && sw % dw == 0 ? i * sw / dw : i * (sw / dw) + i * (sw % dw) / dw; };
        const auto ys = [&](int64_t i) { return sh <= dh && sh % dh == 0 ? i * sh / dh : i * (sh / dh) + i * (sh % dh) / dh; };
        for (int32_t y = 0; y < dh; ++y)
          for (int32_t x = 0; x < dw; ++x)
            ASSERT_EQ(dp.at(x, view ? dh - 1 - y : y), sp.at(int32_t(xs(x)), int32_t(ys(y)))) << x << "," << y;
        V_FreeBitmap(&dst);
      }
      V_FreeBitmap(&src);
    }
}

int32_t g_scale_calls = 0, g_scale_result = RESULT_OK;
int32_t VK_CALL scale_hook(BitmapHandle*, int32_t, int32_t) {
  ++g_scale_calls;
  return g_scale_result;
}

TEST_F(Resize, ResultCodesAndTheRegionHook) {
  BitmapHandle b = make(Store::memory, 9, 7, 8), blank = init(9, 7, 8);
  EXPECT_EQ(V_SizeBitmap(nullptr, 3, 3, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SizeBitmap(&blank, 3, 3, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SizeBitmap(&b, 0, 0, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SizeBitmap(&b, 9, 7, SIZE_SMOOTH), RESULT_OK);
  EXPECT_EQ(V_ResizeBitmapExt(nullptr, &b, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ResizeBitmap(&b, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ResizeBitmap(&blank, &b), RESULT_NO_BITMAP);  // the shared routine's code
  EXPECT_EQ(V_ResizeBitmap(&b, &blank), RESULT_NO_BITMAP);

  const Hooks hooks{{5, hook(scale_hook)}};
  g_scale_result = RESULT_FAIL;
  const Snapshot snap(&b);
  EXPECT_EQ(V_SizeBitmap(&b, 0, 14, SIZE_RESAMPLE), RESULT_FAIL);
  EXPECT_EQ(g_scale_calls, 1);
  EXPECT_TRUE(snap.unchanged());
  g_scale_result = RESULT_OK;
  ASSERT_EQ(V_SizeBitmap(&b, 0, 14, SIZE_RESAMPLE), RESULT_OK);
  EXPECT_EQ(b.Width, 18);  // MulDiv(14, 9, 7)
  EXPECT_EQ(g_scale_calls, 2);
  V_FreeBitmap(&b);
}

TEST_F(Resize, FailuresAndCancellationLeaveTheBitmapAsItWas) {
  struct Case { int32_t bits; uint32_t flags; Store store; };
  const Case cases[] = {{24, SIZE_NEAREST, Store::tiles},    {8, SIZE_RESAMPLE, Store::memory},
                        {4, SIZE_RESAMPLE, Store::disk},      {48, SIZE_SMOOTH, Store::memory},
                        {1, SIZE_ONE_BIT_DENSITY, Store::compressed}, {12, SIZE_SMOOTH, Store::tiles}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.bits << " bits, flags " << c.flags << ", " << name(c.store));
    sweep_kept(
        [&] {
          BitmapHandle b = make(c.store, 21, 9, c.bits);
          if (c.bits <= 8) V_CreateBitmapGrayPalette(&b);
          return b;
        },
        [&](BitmapHandle* b) { return V_SizeBitmap(b, 9, 20, c.flags); });
    for (int at : {1, 3}) {
      BitmapHandle b = make(c.store, 21, 9, c.bits);
      const Snapshot before(&b);
      const CancelAt cancel(at);
      EXPECT_EQ(V_SizeBitmap(&b, 9, 20, c.flags), 0);
      EXPECT_TRUE(before.unchanged());
      V_FreeBitmap(&b);
    }
  }
  // The destination call and the starts free what they made.
  BitmapHandle src, dst;
  fault_sweep(
      [&] {
        src = make(Store::memory, 21, 9, 4, 2);
        dst = like(&src, 30, 30, 4);
        dst.ViewPerspective = 4;
      },
      [&] { return V_ResizeBitmapExt(&src, &dst, SIZE_SMOOTH); },
      [&](const SweepRun& run) {
        // The turned copy may fall back on a failure of its own and succeed.
        EXPECT_TRUE(run.result == RESULT_OK || (run.fired && run.result == RESULT_FAIL)) << run.result;
        V_FreeBitmap(&src);
        V_FreeBitmap(&dst);
      });
  fault_sweep([] {}, [] {
        void* s = nullptr;
        const int32_t r = V_StartResize(4, 4, 8, 8, &s);
        if (s) V_StopResize(s);
        return r;
      }, [](const SweepRun&) {});
}

// Every method from every working format, up, down and mixed, as checksums:
// the spline's single-precision steps must give these bits in every build.
// VK_GOLDEN_PRINT=1 prints the table the current code gives.
TEST_F(Resize, GoldenChecksumsOfEveryMethod) {
  struct Source { int32_t bits; bool gray; };
  const Source sources[] = {{1, true}, {4, false}, {8, true}, {8, false}, {12, true},
                            {16, false}, {24, false}, {32, false}, {48, false}, {64, false}};
  const uint32_t golden[] = {0x31F84B21, 0x9A5E7ED0, 0xD36B3145, 0x65A7515C, 0xF11E64C7,
                             0x6AFE7D57, 0x465E5AF4, 0xAAEE6653, 0x38E7257E, 0x8820B1EF};
  const bool print = std::getenv("VK_GOLDEN_PRINT") != nullptr;
  for (size_t k = 0; k < std::size(sources); ++k) {
    uint32_t crc = 0;
    for (uint32_t flags : {SIZE_NEAREST, SIZE_ONE_BIT_DENSITY, SIZE_RESAMPLE, SIZE_SMOOTH})
      for (auto [w, h] : {std::pair{50, 37}, {9, 6}, {41, 8}}) {
        BitmapHandle b = make(Store::memory, 23, 17, sources[k].bits, 99);
        if (sources[k].gray && sources[k].bits <= 8) V_CreateBitmapGrayPalette(&b);
        if (sources[k].bits == 12) b.Order = ORDER_GRAY;
        b.DitheringMethod = DITHER_FLOYD_STEINBERG;
        ASSERT_EQ(V_SizeBitmap(&b, w, h, flags), RESULT_OK);
        for (uint64_t v : pixels_of(&b).v) crc = crc * 0x01000193u ^ uint32_t(v) ^ uint32_t(v >> 32);
        V_FreeBitmap(&b);
      }
    if (print) std::printf("0x%08X,%s", crc, k + 1 == std::size(sources) ? "\n" : " ");
    else EXPECT_EQ(crc, golden[k]) << sources[k].bits << " bits";
  }
}

// ---- the row-segment reader -----------------------------------------------------------------

int32_t VK_CALL read_from(intptr_t user, int32_t row, uint8_t* buffer, int32_t bytes) {
  return V_GetBitmapRow(reinterpret_cast<BitmapHandle*>(user), buffer, uint32_t(row), bytes);
}

TEST_F(Resize, TheSegmentReaderGivesWhatTheWholeBitmapCallWrites) {
  struct Method { uint32_t size_flags, reader_flags; };
  const Method methods[] = {{SIZE_NEAREST, 0}, {SIZE_ONE_BIT_DENSITY, RESIZE_READ_DENSITY},
                            {SIZE_RESAMPLE, RESIZE_READ_AVERAGE}, {SIZE_SMOOTH, RESIZE_READ_SPLINE}};
  std::mt19937 rng(11);
  for (int32_t sbits : {1, 4, 8, 12, 16, 24, 32, 48, 64})
    for (int32_t obits : {1, 4, 8, 24, 32})
      for (const Method& m : methods)
        for (auto [dw, dh] : {std::pair{29, 31}, {11, 5}, {40, 9}}) {
          SCOPED_TRACE(::testing::Message() << sbits << " -> " << obits << " bits, flags " << m.size_flags << ", "
                                            << dw << " x " << dh);
          BitmapHandle src = make(Store::memory, 17, 13, sbits, uint32_t(sbits * 7 + obits));
          if (sbits == 12) src.Order = ORDER_GRAY;
          if (sbits == 8) V_CreateBitmapGrayPalette(&src);
          BitmapHandle dst;
          ASSERT_EQ(V_CreateBitmap(&dst, TYPE_CONVENTIONAL, dw, dh, obits, obits >= 24 && sbits > 12 ? src.Order : ORDER_BGR,
                                   nullptr, src.ViewPerspective, nullptr, 0), RESULT_OK);
          if (obits == sbits) dst.Order = src.Order;
          if (obits == 8 && sbits == 8) V_CreateBitmapGrayPalette(&dst);
          dst.DitheringMethod = src.DitheringMethod;
          ASSERT_EQ(V_ResizeBitmapExt(&src, &dst, m.size_flags), RESULT_OK);
          std::vector<RGBQUAD> pal(256);
          const int32_t colors = obits <= 8 ? 1 << obits : 0;
          if (colors) ASSERT_EQ(V_GetBitmapPaletteEntries(&dst, 0, colors, pal.data()), colors);
          for (int pass = 0; pass < 2; ++pass) {
            void* r = nullptr;
            ASSERT_EQ(V_StartResizeBitmap(&src, dw, dh, obits, colors ? pal.data() : nullptr, colors,
                                          m.reader_flags | (pass ? RESIZE_READ_KEEP_ROWS : 0u),
                                          pass ? read_from : nullptr, reinterpret_cast<intptr_t>(&src), &r),
                      RESULT_OK);
            std::vector<uint8_t> want(dst.BytesPerLine + 8), got(dst.BytesPerLine + 8);
            for (int k = 0; k < 12; ++k) {
              const int32_t row = int32_t(rng() % uint32_t(dh)), col = int32_t(rng() % uint32_t(dw));
              const int32_t count = 1 + int32_t(rng() % uint32_t(dw - col));
              ASSERT_GT(V_GetBitmapRow(&dst, want.data(), uint32_t(row), int32_t(dst.BytesPerLine)), 0);
              const int32_t n = V_GetResizedRowCol(r, got.data(), row, col, count);
              ASSERT_EQ(n, (count * obits + 7) / 8);
              for (int32_t i = 0; i < count; ++i)
                ASSERT_EQ(ref_pixel(got.data(), obits, uint32_t(i)), ref_pixel(want.data(), obits, uint32_t(col + i)))
                    << "row " << row << " column " << col + i;
            }
            EXPECT_EQ(V_StopResizeBitmap(r), RESULT_OK);
          }
          V_FreeBitmap(&dst);
          V_FreeBitmap(&src);
        }
}

TEST_F(Resize, TheSegmentReaderChecksItsArguments) {
  BitmapHandle src = make(Store::memory, 10, 10, 24), blank = init(10, 10, 24);
  void* r = nullptr;
  EXPECT_EQ(V_StartResizeBitmap(&src, 5, 5, 0, nullptr, 0, 0, nullptr, 0, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartResizeBitmap(&blank, 5, 5, 0, nullptr, 0, 0, nullptr, 0, &r), RESULT_NO_BITMAP);
  EXPECT_EQ(V_StartResizeBitmap(&src, 0, 0, 0, nullptr, 0, 0, nullptr, 0, &r), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StopResizeBitmap(nullptr), RESULT_BAD_PARAMETER);
  uint32_t not_a_reader[4] = {};
  EXPECT_EQ(V_StopResizeBitmap(not_a_reader), RESULT_BAD_PARAMETER);
  ASSERT_EQ(V_StartResizeBitmap(&src, 0, 5, 0, nullptr, 0, RESIZE_READ_IN_ORDER, nullptr, 0, &r), RESULT_OK);
  uint8_t buf[64];
  EXPECT_EQ(V_GetResizedRowCol(r, buf, 3, 0, 5), 15);
  EXPECT_EQ(V_GetResizedRowCol(r, buf, 2, 0, 5), RESULT_BAD_PARAMETER);  // earlier row, in-order mode
  EXPECT_EQ(V_GetResizedRowCol(r, buf, 5, 0, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetResizedRowCol(r, buf, 4, 5, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StopResizeBitmap(r), RESULT_OK);
  fault_sweep([] {}, [&] {
        void* s = nullptr;
        const int32_t res = V_StartResizeBitmap(&src, 7, 23, 4, nullptr, 0, RESIZE_READ_SPLINE | RESIZE_READ_KEEP_ROWS,
                                                nullptr, 0, &s);
        if (s) V_StopResizeBitmap(s);
        return res;
      }, [](const SweepRun& run) { if (run.fired) EXPECT_EQ(run.result, RESULT_FAIL); });
  V_FreeBitmap(&src);
  // Dithered rows read out of order start the dithering again.
  BitmapHandle pal = make(Store::memory, 23, 17, 4);
  void* s = nullptr;
  uint8_t seg[16];
  fault_sweep(
      [&] {
        ASSERT_EQ(V_StartResizeBitmap(&pal, 9, 7, 0, nullptr, 0, RESIZE_READ_AVERAGE, nullptr, 0, &s), RESULT_OK);
        ASSERT_EQ(V_GetResizedRowCol(s, seg, 5, 0, 9), 5);
      },
      [&] { return V_GetResizedRowCol(s, seg, 2, 0, 9); },
      [&](const SweepRun& run) {
        EXPECT_EQ(run.result, run.fired ? RESULT_FAIL : 5);
        EXPECT_EQ(V_StopResizeBitmap(s), RESULT_OK);
      });
  V_FreeBitmap(&pal);
}

}  // namespace
