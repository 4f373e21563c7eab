// Shear: result sizes and the silent row limit, rows placed at offsets worked
// out by hand (the strict remainder comparison included) at packed and
// whole-byte depths, vertical shears, negative angles against mirroring,
// compressed rows, progress, the region hooks, and what a failure or a
// cancelled run leaves behind.
#include <algorithm>
#include <array>
#include <functional>
#include <memory>

#include "fault_sweep.h"
#include "orient_helpers.h"

VKT_SWEEPS(V_ShearBitmap);

namespace {

using namespace vkt;

// The stored value `colour` gets in a bitmap of `bits` (what the fill must be).
uint64_t stored(int32_t bits, uint32_t colour) {
  BitmapHandle r = init(1, 1, bits);
  EXPECT_EQ(V_AllocateBitmap(&r, TYPE_CONVENTIONAL), RESULT_OK);
  EXPECT_EQ(V_FillBitmap(&r, colour), RESULT_OK);
  const uint64_t v = pixels_of(&r).v[0];
  V_FreeBitmap(&r);
  return v;
}

using ShearTest = OrientTest;

TEST_F(ShearTest, SizesRangeAndTheSilentRowLimit) {
  struct Case {
    int32_t w, h, bits, angle, horizontal;
    int32_t result, out_w, out_h;  // out_w 0: unchanged
  } cases[] = {
      {100, 100, 8, 0, 1, RESULT_OK, 100, 100},
      {100, 100, 8, 4500, 1, RESULT_OK, 200, 100},  // 100 + 11585 x 100 / 11585
      {100, 100, 8, -4500, 1, RESULT_OK, 200, 100},
      {100, 50, 24, 4500, 0, RESULT_OK, 100, 150},  // columns slide: the height grows
      {100, 100, 8, 9000, 1, RESULT_BAD_PARAMETER, 0, 0},
      {100, 100, 8, -9000, 0, RESULT_BAD_PARAMETER, 0, 0},
      // 8 bits: a row of 32768 bytes is made, one of 32769 is not.
      {32668, 100, 8, 4500, 1, RESULT_OK, 32768, 100},
      {32669, 100, 8, 4500, 1, RESULT_OK, 0, 0},
      {100, 32669, 8, -4500, 0, RESULT_OK, 0, 0},
      {262051, 100, 1, 4500, 1, RESULT_OK, 262151, 100},  // 32768 bytes and 7 bits
      {262052, 100, 1, 4500, 1, RESULT_OK, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + " x " + std::to_string(c.h) + " angle " + std::to_string(c.angle));
    BitmapHandle b = make(Store::memory, c.w, c.h, c.bits);
    BitmapHandle record = b;
    const Pixels before = c.angle == 0 ? pixels_of(&b) : Pixels{};
    EXPECT_EQ(V_ShearBitmap(&b, c.angle, c.horizontal, 0), c.result);
    if (c.out_w == 0) {
      EXPECT_EQ(std::memcmp(&record, &b, sizeof b), 0);  // not even a row was read
    } else {
      EXPECT_EQ(b.Width, c.out_w);
      EXPECT_EQ(b.Height, c.out_h);
      if (c.angle == 0) EXPECT_EQ(pixels_of(&b), before);
    }
    V_FreeBitmap(&b);
  }
  EXPECT_EQ(V_ShearBitmap(nullptr, 0, 1, 0), RESULT_NO_BITMAP);
  BitmapHandle none = init(4, 4, 8);
  EXPECT_EQ(V_ShearBitmap(&none, 0, 1, 0), RESULT_NO_BITMAP);
}

// Offsets of the rows in processing order, worked by hand.
//   3000: s 8192, c 14189, q 0, r 8192.  Remainders 8192, 16384 > c (-> 2195,
//         offset 1), 10387, 18579 > c (-> 4390, offset 2): 0 0 1 1 2; the
//         width grows by 40960 / 14189 = 2.
//   5631: s 13632, c 9088, q 1, r 4544.  After row 2 the remainder is
//         exactly c, which does not count: 0 1 2 4 5; the width grows by
//         68160 / 9088 = 7.
struct HandCase {
  int32_t angle;
  std::array<int32_t, 5> offsets;
  int32_t extra;
};
const HandCase kHand[] = {{3000, {0, 0, 1, 1, 2}, 2}, {5631, {0, 1, 2, 4, 5}, 7}};

// 7 x 5 horizontally and 5 x 7 vertically, every pixel: stored row 0 goes
// first in view perspective 2, the last stored row in 0; a vertical shear
// slides the columns of the quarter-turned image, so column x moves down by
// extra - (offset of column x).
TEST_F(ShearTest, EveryPixelAtHandComputedOffsets) {
  const uint32_t colour = 0x3080C0;
  for (const HandCase& hc : kHand)
    for (int32_t bits : {1, 4, 8, 12, 24})
      for (int32_t vp : {0, 2})
        for (int32_t horizontal : {1, 0}) {
          SCOPED_TRACE(std::to_string(hc.angle) + " " + std::to_string(bits) + " bits view " + std::to_string(vp) +
                       (horizontal ? " horizontal" : " vertical"));
          const int32_t w = horizontal ? 7 : 5, h = horizontal ? 5 : 7;
          BitmapHandle b = make(Store::memory, w, h, bits, 11);
          b.ViewPerspective = vp;
          const Pixels p = pixels_of(&b);
          const uint64_t fill = stored(bits, colour);
          ASSERT_EQ(V_ShearBitmap(&b, hc.angle, horizontal, colour), RESULT_OK);
          const Pixels t = pixels_of(&b);
          ASSERT_EQ(t.w, w + (horizontal ? hc.extra : 0));
          ASSERT_EQ(t.h, h + (horizontal ? 0 : hc.extra));
          auto offset = [&](int32_t i) { return hc.offsets[size_t(vp == 2 ? i : 4 - i)]; };
          for (int32_t y = 0; y < t.h; ++y)
            for (int32_t x = 0; x < t.w; ++x) {
              const int32_t sx = horizontal ? x - offset(y) : x, sy = horizontal ? y : y - (hc.extra - offset(x));
              const bool in = sx >= 0 && sx < w && sy >= 0 && sy < h;
              ASSERT_EQ(t.at(x, y), in ? p.at(sx, sy) : fill) << x << "," << y;
            }
          V_FreeBitmap(&b);
        }
}

// A negative angle is the positive one between two mirrors of the rows that
// slide: of the image for a horizontal shear, of the quarter-turned image
// (the image flipped) for a vertical one; for every depth, storage kind and
// for transposed views (where mirror and flip exchange what they do).
TEST_F(ShearTest, NegativeAngleIsMirrorShearMirror) {
  for (int32_t bits : kDepths)
    for (Store s : stores_for(bits))
      for (int32_t vp : {2, 0, 5})
        for (int32_t horizontal : {1, 0}) {
          SCOPED_TRACE(std::to_string(bits) + " bits " + name(s) + " view " + std::to_string(vp) +
                       (horizontal ? " horizontal" : " vertical"));
          BitmapHandle n = make(s, 33, 9, bits, 4), m = make(s, 33, 9, bits, 4);
          n.ViewPerspective = m.ViewPerspective = vp;
          ASSERT_EQ(V_ShearBitmap(&n, -2750, horizontal, 0x204060), RESULT_OK);
          auto mirror = horizontal ? V_ReverseBitmap : V_FlipBitmap;
          ASSERT_EQ(mirror(&m), RESULT_OK);
          ASSERT_EQ(V_ShearBitmap(&m, 2750, horizontal, 0x204060), RESULT_OK);
          ASSERT_EQ(mirror(&m), RESULT_OK);
          EXPECT_EQ(pixels_of(&n), pixels_of(&m));
          EXPECT_NE(n.Width * n.Height, 33 * 9);
          V_FreeBitmap(&n);
          V_FreeBitmap(&m);
        }
}

// Compressed pages are sheared as runs, to the pixels of packed ones, and
// stay compressed; long fills split into runs of at most 65535.
TEST_F(ShearTest, CompressedRowsShearLikePackedOnes) {
  struct Case {
    int32_t w, h, angle, horizontal;
  } cases[] = {{70, 45, 3000, 1}, {70, 45, -1500, 1}, {70, 45, 2000, 0}, {70, 45, -6000, 0}, {9, 20, 8999, 1}};
  for (const Case& c : cases)
    for (uint32_t colour : {0x000000u, 0xFFFFFFu}) {
      SCOPED_TRACE(std::to_string(c.angle) + (c.horizontal ? " horizontal" : " vertical") + " colour " +
                   std::to_string(colour));
      BitmapHandle z = make(Store::compressed, c.w, c.h, 1, 5), m = make(Store::memory, c.w, c.h, 1, 5);
      ASSERT_EQ(V_ShearBitmap(&z, c.angle, c.horizontal, colour), RESULT_OK);
      ASSERT_EQ(V_ShearBitmap(&m, c.angle, c.horizontal, colour), RESULT_OK);
      EXPECT_TRUE(z.Flags & BITMAP_COMPRESSED);
      EXPECT_EQ(pixels_of(&z), pixels_of(&m));
      V_FreeBitmap(&z);
      V_FreeBitmap(&m);
    }
}

// The quarter turn reports 0 to 20, the folded mirror 5, the rows the rest.
TEST_F(ShearTest, ProgressIsSplitBetweenThePreparations) {
  struct Case {
    int32_t angle, horizontal;
    std::vector<int32_t> marks;  // reported, in this order, among the others
  } cases[] = {{1000, 1, {0, 100}}, {-1000, 1, {5, 100}}, {1000, 0, {0, 20, 100}}, {-1000, 0, {0, 20, 25, 100}}};
  for (const Case& c : cases) {
    BitmapHandle b = make(Store::memory, 40, 30, 8);
    std::vector<int32_t> seen;
    {
      StatusRecorder progress;
      ASSERT_EQ(V_ShearBitmap(&b, c.angle, c.horizontal, 0), RESULT_OK);
      seen = progress.seen;
    }
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(seen.front(), c.marks.front());
    EXPECT_EQ(seen.back(), 100);
    for (int32_t m : c.marks) EXPECT_NE(std::find(seen.begin(), seen.end(), m), seen.end()) << m;
    V_FreeBitmap(&b);
  }
}

std::vector<std::array<int32_t, 2>> g_hooks;
int32_t g_copy_result = RESULT_OK;
int32_t VK_CALL copy_hook(BitmapHandle* d, BitmapHandle*, int32_t, int32_t) {
  g_hooks.push_back({2, 0});
  d->Region = reinterpret_cast<VK_HRGN>(uintptr_t{0x1234});
  return g_copy_result;
}
int32_t VK_CALL shear_hook(BitmapHandle* b, int32_t copied) {
  g_hooks.push_back({12, copied + (b->Region == reinterpret_cast<VK_HRGN>(uintptr_t{0x1234}) ? 10 : 0)});
  return RESULT_OK;
}

// On success the region is copied onto the result and entry 12 is told; a
// refusing copy hook leaves the bitmap as it was.
TEST_F(ShearTest, RegionHooksAfterTheRows) {
  const Hooks hooks{{1, hook(copy_hook)}, {11, hook(shear_hook)}};
  BitmapHandle b = make(Store::memory, 9, 5, 8);
  g_hooks.clear();
  EXPECT_EQ(V_ShearBitmap(&b, 1000, 0, 0), RESULT_OK);
  EXPECT_EQ(g_hooks, (std::vector<std::array<int32_t, 2>>{{2, 0}, {12, 11}}));
  EXPECT_EQ(b.Region, reinterpret_cast<VK_HRGN>(uintptr_t{0x1234}));
  b.Region = nullptr;
  g_copy_result = -7;
  const Snapshot snap(&b);
  EXPECT_EQ(V_ShearBitmap(&b, 1000, 1, 0), -7);
  EXPECT_TRUE(snap.unchanged());
  g_copy_result = RESULT_OK;
  V_FreeBitmap(&b);
}

struct Op {
  const char* name;
  int32_t angle, horizontal;
};
const Op kOps[] = {{"30", 3000, 1}, {"-30", -3000, 1}, {"vertical 20", 2000, 0}, {"vertical -45", -4500, 0}};

TEST_F(ShearTest, AFailedAllocationLeavesRecordAndPixelsAsTheyWere) {
  for (const Op& op : kOps)
    for (Store s : {Store::memory, Store::disk, Store::tiles, Store::compressed}) {
      SCOPED_TRACE(std::string(op.name) + " " + name(s));
      BitmapHandle b;
      std::unique_ptr<Snapshot> snap;
      fault_sweep(
          [&] {
            b = make(s, 33, 9, s == Store::compressed ? 1 : 24);
            snap = std::make_unique<Snapshot>(&b);
          },
          [&] { return V_ShearBitmap(&b, op.angle, op.horizontal, 0x102030); },
          [&](const SweepRun& run) {
            expect_kept(run, *snap);
            snap.reset();
            V_FreeBitmap(&b);
          });
    }
}

TEST_F(ShearTest, ACancellingCallbackLeavesRecordAndPixelsAsTheyWere) {
  for (const Op& op : kOps)
    for (Store s : {Store::memory, Store::tiles, Store::compressed})
      for (int at : {1, 2, 30, 42}) {
        SCOPED_TRACE(std::string(op.name) + " " + name(s) + " stop at call " + std::to_string(at));
        BitmapHandle b = make(s, 33, 40, s == Store::compressed ? 1 : 8);
        const Snapshot snap(&b);
        const CancelAt cancel(at);
        const int32_t r = V_ShearBitmap(&b, op.angle, op.horizontal, 0);
        if (cancel.calls < at) {
          EXPECT_EQ(r, RESULT_OK);  // fewer reports than that
        } else {
          EXPECT_EQ(r, 0);
          EXPECT_TRUE(snap.unchanged());
        }
        V_FreeBitmap(&b);
      }
}

}  // namespace
