// Orientation: the sine table, row mirrors, view-perspective arithmetic,
// flips and mirrors of bitmaps, quarter and half turns, buffer turns, and
// what a failure or a cancelled run leaves behind.
#include <array>
#include <cmath>
#include <numbers>
#include <utility>

#include "compressed.h"
#include "geometry.h"

#include "fault_sweep.h"
#include "orient_helpers.h"

VKT_SWEEPS(V_FlipBitmap, V_ReverseBitmap, V_RotateBitmap90, V_RotateBitmap, V_IntRotateBitmap, V_FillBitmap);
VKT_SWEEPS(V_ChangeBitmapViewPerspective, V_IntChangeBitmapViewPerspective);

namespace {

using namespace vkt;

// ---- references ----------------------------------------------------------------------

Pixels flipped(const Pixels& p) {
  Pixels o = p;
  for (int32_t y = 0; y < p.h; ++y)
    for (int32_t x = 0; x < p.w; ++x) o.v[size_t(y) * p.w + x] = p.at(x, p.h - 1 - y);
  return o;
}
Pixels mirrored(const Pixels& p) {
  Pixels o = p;
  for (int32_t y = 0; y < p.h; ++y)
    for (int32_t x = 0; x < p.w; ++x) o.v[size_t(y) * p.w + x] = p.at(p.w - 1 - x, y);
  return o;
}
// Destination row r, column c: direction 1 reads source column r from the
// bottom, direction 0 source column W - 1 - r from the top.
Pixels quarter(const Pixels& p, int32_t direction) {
  Pixels o{p.h, p.w, std::vector<uint64_t>(p.v.size())};
  for (int32_t r = 0; r < o.h; ++r)
    for (int32_t c = 0; c < o.w; ++c)
      o.v[size_t(r) * o.w + c] = direction ? p.at(r, p.h - 1 - c) : p.at(p.w - 1 - r, c);
  return o;
}

// ---- sine ---------------------------------------------------------------------------------

TEST(Sine, EveryEntryIsTheRoundedSineAndTheQuadrantsFollowBySymmetry) {
  for (int32_t a = 0; a <= 36000; ++a) {
    const double s = std::sin(a * std::numbers::pi / 18000.0), c = std::cos(a * std::numbers::pi / 18000.0);
    const int32_t es = int32_t(std::lround(std::fabs(s) * 16384.0)) * (s < 0 ? -1 : 1);
    const int32_t ec = int32_t(std::lround(std::fabs(c) * 16384.0)) * (c < 0 ? -1 : 1);
    ASSERT_EQ(V_SinValue(a), es) << a;
    ASSERT_EQ(V_CosValue(a), ec) << a;
  }
  EXPECT_EQ(V_SinValue(-1), 0);
  EXPECT_EQ(V_CosValue(36001), 0);
}

// ---- one row -----------------------------------------------------------------------------

TEST(MirrorLine, EveryDepthAndWidthAgainstThePixelReference) {
  std::mt19937 rng(7);
  for (int32_t bits : kDepths)
    for (int32_t w : {1, 2, 7, 33, 1100}) {
      SCOPED_TRACE(std::to_string(bits) + " bits, width " + std::to_string(w));
      const size_t used = (size_t(w) * bits + 7) / 8;
      std::vector<uint8_t> row(used + 4);
      for (auto& b : row) b = uint8_t(rng());
      const std::vector<uint8_t> before = row;
      ASSERT_EQ(V_MirrorLine(row.data(), w, bits), RESULT_OK);
      for (int32_t x = 0; x < w; ++x)
        ASSERT_EQ(ref_pixel(row.data(), bits, x), ref_pixel(before.data(), bits, w - 1 - x)) << x;
      // Padding: the low bits of the last byte (the high nibble for 12 bits).
      const unsigned pad = unsigned(used * 8 - size_t(w) * bits);
      const unsigned keep = bits == 12 ? (pad ? 0xF0u : 0u) : (1u << pad) - 1;
      EXPECT_EQ(row[used - 1] & keep, before[used - 1] & keep) << "padding bits";
      EXPECT_TRUE(std::equal(row.begin() + used, row.end(), before.begin() + used)) << "bytes after the row";
    }
  uint8_t b = 0;
  EXPECT_EQ(V_MirrorLine(&b, 1, 9), RESULT_BAD_BITS_PER_PIXEL);
}

// ---- view-perspective arithmetic ---------------------------------------------------------

TEST(ViewPerspective, ChangeParamsAndRelabelling) {
  struct Case { int32_t from, to, flip, angle; };
  for (const Case c : {Case{0, 2, 1, 0}, Case{0, 4, 0, 270}, Case{4, 0, 0, 90}, Case{1, 0, 1, 180},
                       Case{0, 3, 0, 180}, Case{1, 8, 1, 270}}) {
    int32_t f = -1, a = -1;
    ASSERT_EQ(V_GetChangeViewPerspectiveParams(c.from, c.to, &f, &a), RESULT_OK);
    EXPECT_EQ(f, c.flip) << c.from << "->" << c.to;
    EXPECT_EQ(a, c.angle) << c.from << "->" << c.to;
  }
  int32_t f, a;
  EXPECT_EQ(V_GetChangeViewPerspectiveParams(0, 6, &f, &a), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetChangeViewPerspectiveParams(9, 0, &f, &a), RESULT_BAD_PARAMETER);

  const int32_t flips[9] = {2, 3, 0, 1, 7, 8, 6, 4, 5}, reverses[9] = {1, 0, 3, 2, 5, 4, 6, 8, 7};
  BitmapHandle b = init(3, 2, 8);
  for (int32_t v = 0; v <= 9; ++v) {
    b.ViewPerspective = v;
    ASSERT_EQ(V_FlipBitmapViewPerspective(&b), RESULT_OK);
    EXPECT_EQ(b.ViewPerspective, v <= 8 ? flips[v] : v);
    ASSERT_EQ(V_IntFlipBitmapViewPerspective(&b), RESULT_OK);
    EXPECT_EQ(b.ViewPerspective, v);
    ASSERT_EQ(V_ReverseBitmapViewPerspective(&b), RESULT_OK);
    EXPECT_EQ(b.ViewPerspective, v <= 8 ? reverses[v] : v);
    ASSERT_EQ(V_IntReverseBitmapViewPerspective(&b), RESULT_OK);
    EXPECT_EQ(b.ViewPerspective, v);
  }
}

TEST(ViewPerspective, PointsAndRectanglesWithTheirAsymmetries) {
  using P = std::array<int32_t, 2>;
  using R = std::array<int32_t, 4>;
  auto rect = [](const VK_RECT& r) { return R{r.left, r.top, r.right, r.bottom}; };
  BitmapHandle b = init(10, 4, 8);
  int32_t x = 2, y = 1;
  ASSERT_EQ(V_PointFromBitmap(&b, 0, &x, &y), RESULT_OK);  // equal values: unchanged
  EXPECT_EQ(x, 2);
  ASSERT_EQ(V_PointFromBitmap(&b, 4, &x, &y), RESULT_OK);  // turn 270: (y, w - x - 1)
  EXPECT_EQ((P{x, y}), (P{1, 7}));
  // Into the bitmap from 4 uses the seen size exchanged once more; from 5
  // it does not.
  b.ViewPerspective = 3;
  x = 1, y = 1;
  ASSERT_EQ(V_PointToBitmap(&b, 4, &x, &y), RESULT_OK);  // (4 -> 3): turn 270 with w = 4, h = 10
  EXPECT_EQ((P{x, y}), (P{1, 2}));
  x = 1, y = 1;
  ASSERT_EQ(V_PointToBitmap(&b, 5, &x, &y), RESULT_OK);  // (5 -> 3): flip, turn 270 with w = 10, h = 4
  EXPECT_EQ((P{x, y}), (P{2, 8}));

  VK_RECT r{1, 0, 3, 2};
  ASSERT_EQ(V_ChangeRectViewPerspective(0, 10, 4, 2, &r), RESULT_OK);  // flip
  EXPECT_EQ(rect(r), (R{1, 2, 3, 4}));
  r = VK_RECT{1, 0, 3, 2};
  ASSERT_EQ(V_ChangeRectViewPerspective(0, 10, 4, 3, &r), RESULT_OK);  // half turn
  EXPECT_EQ(rect(r), (R{7, 2, 9, 4}));
  b.ViewPerspective = 0;
  r = VK_RECT{1, 0, 3, 2};
  ASSERT_EQ(V_RectFromBitmap(&b, 8, &r), RESULT_OK);  // turn 90: (H - bottom, left, H - top, right)
  EXPECT_EQ(rect(r), (R{2, 1, 4, 3}));
  ASSERT_EQ(V_RectToBitmap(&b, 8, &r), RESULT_OK);  // and back (seen size exchanged for 8)
  EXPECT_EQ(rect(r), (R{1, 0, 3, 2}));
  EXPECT_EQ(V_RectFromBitmap(&b, 6, &r), RESULT_BAD_PARAMETER);
}

// Every change between two orientations moves each stored pixel to where
// V_PointFromBitmap says it goes.
TEST_F(OrientTest, EveryViewPerspectiveChangeAgreesWithPointMapping) {
  const int32_t values[] = {0, 1, 2, 3, 4, 5, 7, 8};
  struct Kind { int32_t bits; Store store; };
  for (const Kind k : {Kind{1, Store::compressed}, Kind{4, Store::memory}, Kind{12, Store::disk},
                       Kind{24, Store::tiles}})
    for (int32_t from : values)
      for (int32_t to : values) {
        SCOPED_TRACE(std::to_string(k.bits) + " bits " + name(k.store) + " " + std::to_string(from) + "->" +
                     std::to_string(to));
        BitmapHandle src = make(k.store, 7, 5, k.bits);
        src.ViewPerspective = from;
        const Pixels before = pixels_of(&src);
        BitmapHandle dst;
        ASSERT_EQ(V_ChangeBitmapViewPerspective(&dst, &src, to), RESULT_OK);
        EXPECT_EQ(dst.ViewPerspective, to);
        EXPECT_EQ(pixels_of(&src), before) << "source changed";
        const Pixels after = pixels_of(&dst);
        for (int32_t y = 0; y < src.Height; ++y)
          for (int32_t x = 0; x < src.Width; ++x) {
            int32_t px = x, py = y;
            ASSERT_EQ(V_PointFromBitmap(&src, to, &px, &py), RESULT_OK);
            ASSERT_TRUE(px >= 0 && px < after.w && py >= 0 && py < after.h) << px << "," << py;
            ASSERT_EQ(after.at(px, py), before.at(x, y)) << x << "," << y;
          }
        // In place gives the same.
        ASSERT_EQ(V_ChangeBitmapViewPerspective(nullptr, &src, to), RESULT_OK);
        EXPECT_EQ(pixels_of(&src), after);
        EXPECT_EQ((src.Flags & BITMAP_COMPRESSED) != 0, k.store == Store::compressed);
        V_FreeBitmap(&dst);
        V_FreeBitmap(&src);
      }
}

// ---- flips, mirrors, quarter and half turns of bitmaps -------------------------------------

TEST_F(OrientTest, FlipMirrorAndTurnsOfEveryDepthWidthAndStorage) {
  for (int32_t bits : kDepths)
    for (int32_t w : kWidths)
      for (Store s : stores_for(bits)) {
        const int32_t h = w == 7 ? 1 : w == 31 ? 9 : 5;
        SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(w) + " x " + std::to_string(h) + ", " +
                     name(s));
        BitmapHandle b = make(s, w, h, bits, uint32_t(bits * 100 + w));
        b.XResolution = 300;
        b.YResolution = 150;
        const Pixels p = pixels_of(&b);
        const bool compressed = s == Store::compressed;

        ASSERT_EQ(V_FlipBitmap(&b), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), flipped(p));
        ASSERT_EQ(V_ReverseBitmap(&b), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), mirrored(flipped(p)));
        ASSERT_EQ(V_FlipBitmap(&b), RESULT_OK);
        ASSERT_EQ(V_ReverseBitmap(&b), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), p);

        ASSERT_EQ(V_RotateBitmap90(&b, 1, 0, 100), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), quarter(p, 1));
        EXPECT_EQ(b.XResolution, 150);
        EXPECT_EQ((b.Flags & BITMAP_COMPRESSED) != 0, compressed);
        ASSERT_EQ(V_RotateBitmap90(&b, 0, 0, 100), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), p);
        ASSERT_EQ(V_RotateBitmap90(&b, 0, 0, 100), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), quarter(p, 0));
        for (int i = 0; i < 3; ++i) ASSERT_EQ(V_RotateBitmap90(&b, 0, 0, 100), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), p) << "four quarter turns";

        ASSERT_EQ(V_RotateBitmap(&b, 18000, 0, 0), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), mirrored(flipped(p)));
        ASSERT_EQ(V_RotateBitmap(&b, -18000, ROTATE_RESIZE, 0), RESULT_OK);
        ASSERT_EQ(pixels_of(&b), p) << "two half turns";
        EXPECT_EQ((b.Flags & BITMAP_COMPRESSED) != 0, compressed);
        V_FreeBitmap(&b);
      }
}

TEST_F(OrientTest, TransposedOrientationsSwapWhatFlipAndReverseMean) {
  BitmapHandle b = make(Store::memory, 6, 4, 8);
  const Pixels p = pixels_of(&b);
  b.ViewPerspective = 5;
  ASSERT_EQ(V_FlipBitmap(&b), RESULT_OK);
  EXPECT_EQ(pixels_of(&b), mirrored(p));
  ASSERT_EQ(V_ReverseBitmap(&b), RESULT_OK);
  EXPECT_EQ(pixels_of(&b), flipped(mirrored(p)));
  b.ViewPerspective = 6;
  EXPECT_EQ(V_FlipBitmap(&b), RESULT_BAD_PARAMETER);
  ASSERT_EQ(V_ReverseBitmap(&b), RESULT_OK);  // mirrors
  EXPECT_EQ(pixels_of(&b), flipped(p));
  V_FreeBitmap(&b);
}

// Compressed 1-bit rows move and are mirrored as run lists: runs that a
// coder would never write (a zero-length run inside a row, a run split in
// two) survive a flip, a mirror and a half turn, which they would not if a
// row went through its expanded form.
TEST_F(OrientTest, FlipsAndHalfTurnsKeepCompressedRowsAsTheyAre) {
  const int32_t w = 40, h = 5;
  BitmapHandle b = make(Store::compressed, w, h, 1);
  auto record = [&](int32_t y) {
    std::vector<uint8_t> r(2 * w + 8);
    r.resize(size_t(std::max(vk::cmp::read_record(&b, uint32_t(y), r.data(), r.size()), 0)));
    return r;
  };
  std::vector<std::vector<uint8_t>> before;
  for (int32_t y = 0; y < h; ++y) {
    const uint16_t r[] = {7, 0, uint16_t(y), 0, 3, 10, 0, 4, uint16_t(23 - y)};  // a count of 7, then the runs
    ASSERT_GT(vk::cmp::write_record(&b, uint32_t(y), r), 0);
    before.push_back(record(y));
  }
  const Pixels p = pixels_of(&b);
  ASSERT_EQ(V_FlipBitmap(&b), RESULT_OK);
  for (int32_t y = 0; y < h; ++y) EXPECT_EQ(record(y), before[size_t(h - 1 - y)]) << y;
  ASSERT_EQ(V_ReverseBitmap(&b), RESULT_OK);
  ASSERT_EQ(V_RotateBitmap(&b, 18000, 0, 0), RESULT_OK);
  for (int32_t y = 0; y < h; ++y) EXPECT_EQ(record(y).size(), before[0].size()) << "runs kept, row " << y;
  EXPECT_EQ(pixels_of(&b), p);  // flip, mirror, half turn
  V_FreeBitmap(&b);
}

// Compressed 1-bit bitmaps above the size limit turn from their runs, band
// by band: the same pixels as reading them by columns, still compressed.
// The limit and the band size are lowered so that small bitmaps take that
// path through many bands; the wide rows hold runs split at 65535.
TEST_F(OrientTest, CompressedBitmapsAboveTheSizeLimitTurnFromTheirRuns) {
  const uint64_t limit = vk::compressed_turn_limit;
  const uint32_t band = vk::turn_band_bytes;
  vk::compressed_turn_limit = 0;
  vk::turn_band_bytes = 64;
  struct Size { int32_t w, h; };
  for (const Size z : {Size{1, 3}, Size{7, 1}, Size{33, 9}, Size{31, 51}, Size{70000, 3}})
    for (int32_t direction : {0, 1}) {
      SCOPED_TRACE(std::to_string(z.w) + " x " + std::to_string(z.h) + " direction " + std::to_string(direction));
      BitmapHandle b = make(Store::compressed, z.w, z.h, 1, uint32_t(z.w));
      if (z.w > 65535) {
        std::vector<uint8_t> ones(b.BytesPerLine, 0xFF);
        ones[5000] = 0x5A;
        ASSERT_GT(V_PutBitmapRow(&b, ones.data(), 1, int32_t(ones.size())), 0);
      }
      const Pixels p = pixels_of(&b);
      ASSERT_EQ(V_RotateBitmap90(&b, direction, 0, 100), RESULT_OK);
      EXPECT_TRUE(b.Flags & BITMAP_COMPRESSED);
      ASSERT_EQ(pixels_of(&b), quarter(p, direction));
      V_FreeBitmap(&b);
    }
  vk::compressed_turn_limit = limit;
  vk::turn_band_bytes = band;
}

// What the host's region hooks hear: a quarter turn its direction as an
// angle, a rectangle copy the rectangle's origin (after the duplicate's own
// region copy); flips and half turns call no hook.
using Calls = std::vector<std::array<int32_t, 4>>;
Calls g_hooks;
int32_t VK_CALL copy_hook(BitmapHandle* d, BitmapHandle* s, int32_t dx, int32_t dy) {
  g_hooks.push_back({2, d == s, dx, dy});
  return RESULT_OK;
}
int32_t VK_CALL turn_hook(BitmapHandle*, int32_t w, int32_t h, int32_t angle) {
  g_hooks.push_back({13, w, h, angle});
  return RESULT_OK;
}

TEST_F(OrientTest, RegionHooksHearOfTurnsAndRectangleCopies) {
  const Hooks hooks{{1, hook(copy_hook)}, {12, hook(turn_hook)}};
  BitmapHandle b = make(Store::memory, 7, 5, 8), d;
  g_hooks.clear();
  auto heard = [](int32_t result) {
    EXPECT_EQ(result, RESULT_OK);
    return std::exchange(g_hooks, {});
  };
  EXPECT_EQ(heard(V_FlipBitmap(&b)), Calls{});
  EXPECT_EQ(heard(V_ReverseBitmap(&b)), Calls{});
  EXPECT_EQ(heard(V_RotateBitmap(&b, 18000, 0, 0)), Calls{});
  EXPECT_EQ(heard(V_RotateBitmap90(&b, 1, 0, 100)), (Calls{{13, 7, 5, 9000}}));
  EXPECT_EQ(heard(V_RotateBitmap90(&b, 0, 0, 100)), (Calls{{13, 5, 7, -9000}}));
  EXPECT_EQ(heard(V_CopyBitmapRect(&d, &b, 2, -1, 3, 3)), (Calls{{2, 1, 0, 0}, {2, 0, -2, 1}}));
  V_FreeBitmap(&d);
  V_FreeBitmap(&b);
}

TEST_F(OrientTest, ExactTurnsOfTheGeneralTurn) {
  BitmapHandle b = make(Store::memory, 100, 50, 8);
  const Pixels p = pixels_of(&b);
  for (int32_t angle : {0, 36000, -36000}) {
    ASSERT_EQ(V_IntRotateBitmap(&b, angle, ROTATE_RESIZE, 0, 10, 40), RESULT_OK);
    EXPECT_EQ(pixels_of(&b), p);
  }
  ASSERT_EQ(V_RotateBitmap(&b, 9000, ROTATE_RESIZE, 0), RESULT_OK);
  EXPECT_EQ(pixels_of(&b), quarter(p, 1));  // +9000 is direction 1
  ASSERT_EQ(V_RotateBitmap(&b, 27000, ROTATE_RESIZE, 0), RESULT_OK);
  EXPECT_EQ(pixels_of(&b), p);
  // A quarter turn of a non-square bitmap clipped to the old size is the
  // general walk: cos 0, sin -16384 from (W/2 - H/2, H/2 + W/2), one row
  // down the source per pixel, one column right per row.  -9000 is the same.
  for (int32_t angle : {9000, -27000}) {
    BitmapHandle c;
    ASSERT_EQ(V_CopyBitmap(&c, &b), RESULT_OK);
    c.ViewPerspective = 0;  // stored as seen: no mirror correction
    ASSERT_EQ(V_RotateBitmap(&c, angle, ROTATE_LINEAR, COLOR_PALETTE_INDEX | 0xEE), RESULT_OK);
    const Pixels t = pixels_of(&c);
    ASSERT_EQ(t.w, 100);
    ASSERT_EQ(t.h, 50);
    for (int32_t y = 0; y < 50; ++y)
      for (int32_t x = 0; x < 100; ++x) {
        const int32_t sx = 25 + y, sy = 75 - x;
        const bool in = sy >= 0 && sy < 50;
        ASSERT_EQ(t.at(x, y), in ? p.at(sx, sy) : 0xEEu) << x << "," << y;
      }
    V_FreeBitmap(&c);
  }
  V_FreeBitmap(&b);
}

// ---- buffers -------------------------------------------------------------------------------

// The buffer calls share their kernels with the bitmap turns; what is their
// own is the walk from the bottom, the transposing walk from the top and the
// half turn in place.
TEST(RotateBuffer, QuarterAndHalfTurnsAgainstThePixelReferences) {
  auto read = [](const std::vector<uint8_t>& buf, int32_t w, int32_t h, int32_t bits) {
    const size_t stride = ((size_t(w) * bits + 31) / 32) * 4;
    Pixels p{w, h, {}};
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) p.v.push_back(ref_pixel(&buf[y * stride], bits, uint32_t(x)));
    return p;
  };
  std::mt19937 rng(3);
  for (int32_t bits : kDepths)
    for (int32_t w : kWidths)
      for (int32_t h : {1, 9, 35}) {
        SCOPED_TRACE(std::to_string(bits) + " bits " + std::to_string(w) + " x " + std::to_string(h));
        std::vector<uint8_t> src(((size_t(w) * bits + 31) / 32) * 4 * h), dst(((size_t(h) * bits + 31) / 32) * 4 * w);
        for (auto& b : src) b = uint8_t(rng());
        const Pixels p = read(src, w, h, bits);
        for (int32_t from_bottom : {0, 1}) {
          ASSERT_EQ(V_RotateBuffer90(src.data(), dst.data(), from_bottom, w, h, bits), RESULT_OK);
          ASSERT_EQ(read(dst, h, w, bits), from_bottom ? quarter(p, 1) : mirrored(quarter(p, 1)));
        }
        std::vector<uint8_t> half(src.size()), same = src;
        ASSERT_EQ(V_RotateBuffer180(src.data(), half.data(), w, h, bits), RESULT_OK);
        ASSERT_EQ(read(half, w, h, bits), mirrored(flipped(p)));
        ASSERT_EQ(V_RotateBuffer180(same.data(), same.data(), w, h, bits), RESULT_OK);
        ASSERT_EQ(read(same, w, h, bits), mirrored(flipped(p)));
      }
}

// ---- the general turn and the fill -----------------------------------------------------------

// Every pixel of a bitmap of each depth takes what V_PutPixelColor stores
// for the colour (compared on a fresh bitmap of the same depth).
TEST_F(OrientTest, FillStoresWhatPutPixelColorStores) {
  for (int32_t bits : kDepths)
    for (Store s : stores_for(bits))
      for (uint32_t colour : {0x000000u, 0xFFFFFFu, 0x3080C0u, COLOR_PALETTE_INDEX | 1u}) {
        SCOPED_TRACE(std::to_string(bits) + " bits " + name(s) + " colour " + std::to_string(colour));
        BitmapHandle b = make(s, 33, 5, bits), ref = init(1, 1, bits);
        ASSERT_EQ(V_AllocateBitmap(&ref, TYPE_CONVENTIONAL), RESULT_OK);
        const int32_t put = V_PutPixelColor(&ref, 0, 0, colour);
        const int32_t r = V_FillBitmap(&b, colour);
        EXPECT_EQ(r, put);
        if (put == RESULT_OK) {
          const uint64_t want = pixels_of(&ref).v[0];
          for (uint64_t v : pixels_of(&b).v) ASSERT_EQ(v, want);
          EXPECT_EQ((b.Flags & BITMAP_COMPRESSED) != 0, s == Store::compressed);
        }
        V_FreeBitmap(&b);
        V_FreeBitmap(&ref);
      }
}

// 4 x 3 by 45 degrees, worked by hand: a = 31500, cos 11585, sin -11585.
// The corners (-2, 2), (-2, 0), (1, 2), (1, 0) turn to x' 2, 1, 4, 2 and
// y' 0, 1, 2, 2, so ROTATE_RESIZE keeps 4 x 3.  Pixel (0, 0) starts at
// x = 2 + (-34755 / 16384) = 0 (fraction -1987), y = 1 + 11585 / 16384 =
// 2 (fraction -4799 after the half-pixel step); the rows follow.
TEST_F(OrientTest, FourByThreeByFortyFiveDegrees) {
  constexpr int F = -1;  // uncovered: the fill
  const int32_t expect[3][4][2] = {{{0, 2}, {1, 1}, {1, 0}, {2, 0}},
                                   {{1, 2}, {1, 2}, {2, 1}, {3, 0}},
                                   {{F, F}, {2, 2}, {3, 2}, {3, 1}}};
  for (uint32_t flags : {0u, ROTATE_RESIZE}) {
    BitmapHandle b = make(Store::memory, 4, 3, 8);
    b.ViewPerspective = 0;  // stored as seen: no mirror correction
    std::vector<uint8_t> row(b.BytesPerLine);
    for (int32_t y = 0; y < 3; ++y) {
      for (int32_t x = 0; x < 4; ++x) row[x] = uint8_t(10 * y + x + 1);
      V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(row.size()));
    }
    ASSERT_EQ(V_RotateBitmap(&b, 4500, flags, COLOR_PALETTE_INDEX | 0xEE), RESULT_OK);
    const Pixels t = pixels_of(&b);
    ASSERT_EQ(t.w, 4);
    ASSERT_EQ(t.h, 3);
    for (int32_t y = 0; y < 3; ++y)
      for (int32_t x = 0; x < 4; ++x) {
        const int32_t* e = expect[y][x];
        EXPECT_EQ(t.at(x, y), e[0] == F ? 0xEEu : uint64_t(10 * e[1] + e[0] + 1)) << x << "," << y;
      }
    V_FreeBitmap(&b);
  }
}

// A constant image stays constant where the turned source covers it, in
// every quality, and the uncovered corners take the fill, for every depth.
TEST_F(OrientTest, ConstantStaysConstantAndCornersTakeTheFill) {
  for (int32_t bits : kDepths)
    for (uint32_t flags : {0u, ROTATE_LINEAR, ROTATE_SPLINE, ROTATE_LINEAR | ROTATE_SPLINE}) {
      SCOPED_TRACE(std::to_string(bits) + " bits flags " + std::to_string(flags));
      BitmapHandle b = make(Store::memory, 40, 30, bits), ref = make(Store::memory, 1, 1, bits);
      ASSERT_EQ(V_FillBitmap(&b, 0x4080C0), RESULT_OK);
      ASSERT_EQ(V_FillBitmap(&ref, 0x204060), RESULT_OK);
      const uint64_t inside = pixels_of(&b).v[0], fill = pixels_of(&ref).v[0];
      ASSERT_EQ(V_RotateBitmap(&b, 3000, flags | ROTATE_RESIZE, 0x204060), RESULT_OK);
      const Pixels t = pixels_of(&b);
      EXPECT_GT(t.w, 40);
      EXPECT_GT(t.h, 30);
      for (int32_t y = t.h / 2 - 8; y < t.h / 2 + 8; ++y)
        for (int32_t x = t.w / 2 - 8; x < t.w / 2 + 8; ++x) ASSERT_EQ(t.at(x, y), inside) << x << "," << y;
      for (auto [x, y] : {std::pair{0, 0}, {t.w - 1, 0}, {0, t.h - 1}, {t.w - 1, t.h - 1}})
        EXPECT_EQ(t.at(x, y), fill) << x << "," << y;
      V_FreeBitmap(&b);
      V_FreeBitmap(&ref);
    }
}

// Palette indices are no levels: ROTATE_LINEAR on an 8-bit colour palette
// gives exactly the nearest turn; on 24 bits it blends.
TEST_F(OrientTest, LinearOnAColourPaletteIsNearest) {
  for (int32_t bits : {8, 24}) {
    BitmapHandle a = make(Store::memory, 37, 23, bits, 7), n = make(Store::memory, 37, 23, bits, 7);
    if (bits == 8) {
      RGBQUAD pal[256];
      for (int i = 0; i < 256; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(255 - i), uint8_t(i * 7), 0};
      ASSERT_EQ(V_PutBitmapColors(&a, 0, 256, pal), RESULT_OK);
      ASSERT_EQ(V_PutBitmapColors(&n, 0, 256, pal), RESULT_OK);
      ASSERT_EQ(V_IsGrayScaleBitmap(&a), 0);
    }
    ASSERT_EQ(V_RotateBitmap(&a, 1234, ROTATE_LINEAR | ROTATE_RESIZE, 0), RESULT_OK);
    ASSERT_EQ(V_RotateBitmap(&n, 1234, ROTATE_RESIZE, 0), RESULT_OK);
    EXPECT_EQ(pixels_of(&a) == pixels_of(&n), bits == 8);
    V_FreeBitmap(&a);
    V_FreeBitmap(&n);
  }
}

// A turn agrees with the same turn of an equivalent bitmap: one stored
// upside down (view perspective 2) turns as its seen image does, and a
// compressed 1-bit page turns like the packed one and stays compressed.
TEST_F(OrientTest, TurnsAgreeWithTurningAnEquivalentBitmap) {
  BitmapHandle b = make(Store::memory, 31, 21, 24, 3), seen, turned;
  b.ViewPerspective = 2;
  ASSERT_EQ(V_ChangeBitmapViewPerspective(&seen, &b, 0), RESULT_OK);
  ASSERT_EQ(V_RotateBitmap(&b, 1000, ROTATE_RESIZE, 0), RESULT_OK);
  ASSERT_EQ(V_RotateBitmap(&seen, 1000, ROTATE_RESIZE, 0), RESULT_OK);
  ASSERT_EQ(V_ChangeBitmapViewPerspective(&turned, &b, 0), RESULT_OK);
  EXPECT_EQ(pixels_of(&turned), pixels_of(&seen));

  BitmapHandle c = make(Store::compressed, 70, 45, 1, 5), m = make(Store::memory, 70, 45, 1, 5);
  ASSERT_EQ(V_RotateBitmap(&c, 150, ROTATE_RESIZE, 0xFFFFFF), RESULT_OK);
  ASSERT_EQ(V_RotateBitmap(&m, 150, ROTATE_RESIZE, 0xFFFFFF), RESULT_OK);
  EXPECT_TRUE(c.Flags & BITMAP_COMPRESSED);
  EXPECT_EQ(pixels_of(&c), pixels_of(&m));
  for (BitmapHandle* x : {&b, &seen, &turned, &c, &m}) V_FreeBitmap(x);
}

// ---- failures and cancellation -----------------------------------------------------------

struct Op {
  const char* name;
  int32_t (*run)(BitmapHandle*);
};
const Op kOps[] = {
    {"flip", [](BitmapHandle* b) { return V_FlipBitmap(b); }},
    {"reverse", [](BitmapHandle* b) { return V_ReverseBitmap(b); }},
    {"quarter", [](BitmapHandle* b) { return V_RotateBitmap90(b, 1, 0, 100); }},
    {"half", [](BitmapHandle* b) { return V_IntRotateBitmap(b, 18000, 0, 0, 0, 100); }},
    {"turn 270", [](BitmapHandle* b) { return V_RotateBitmap(b, 27000, ROTATE_RESIZE, 0); }},
    {"turn 30", [](BitmapHandle* b) { return V_RotateBitmap(b, 3000, ROTATE_RESIZE, 0xFFFFFF); }},
    {"turn 90 clipped linear", [](BitmapHandle* b) { return V_RotateBitmap(b, 9000, ROTATE_LINEAR, 0); }},
    {"turn -10 spline", [](BitmapHandle* b) { return V_RotateBitmap(b, -1000, ROTATE_SPLINE, 0x123456); }},
    {"fill", [](BitmapHandle* b) { return V_FillBitmap(b, 0x00FF00); }},
    {"view 7", [](BitmapHandle* b) { return V_ChangeBitmapViewPerspective(nullptr, b, 7); }},
    {"view 5 flags 0", [](BitmapHandle* b) { return V_IntChangeBitmapViewPerspective(b, b, 5, 0); }},
};

// A failed allocation or a cancelling status callback leaves the record and
// the pixels as they were, and the status callback in place.
TEST_F(OrientTest, FailuresAndCancellationLeaveRecordAndPixelsAsTheyWere) {
  for (const Op& op : kOps)
    for (Store s : {Store::memory, Store::disk, Store::tiles, Store::compressed}) {
      SCOPED_TRACE(std::string(op.name) + " " + name(s));
      const int32_t bits = s == Store::compressed ? 1 : 24;
      const CancelAt never(0);
      sweep_kept([&] { return make(s, 33, 9, bits); }, [&](BitmapHandle* b) {
        const int32_t r = op.run(b);
        intptr_t data = 0;
        EXPECT_NE(V_GetStatusCallBack(&data), nullptr);
        EXPECT_EQ(data, reinterpret_cast<intptr_t>(&never)) << "the caller's status callback is back";
        return r;
      });
      if (s == Store::disk) continue;
      for (int at : {1, 2, 5}) {
        SCOPED_TRACE("stop at call " + std::to_string(at));
        BitmapHandle b = make(s, 33, 40, bits == 1 ? 1 : 8);
        const Snapshot snap(&b);
        const CancelAt cancel(at);
        if (std::string(op.name).rfind("view", 0) == 0) {
          EXPECT_EQ(op.run(&b), RESULT_OK) << "the change reports nothing";
          EXPECT_EQ(cancel.calls, 0);
        } else {
          EXPECT_EQ(op.run(&b), 0);
          EXPECT_TRUE(snap.unchanged());
        }
        V_FreeBitmap(&b);
      }
    }
  BitmapHandle b = make(Store::memory, 5, 3, 8);
  EXPECT_EQ(V_ChangeBitmapViewPerspective(nullptr, &b, 6), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&b);
}

// ---- rectangle copies and trim ---------------------------------------------------------------

// The rectangle of p at (left, top), 0 outside p.
Pixels crop(const Pixels& p, int32_t left, int32_t top, int32_t w, int32_t h) {
  Pixels o{w, h, std::vector<uint64_t>(size_t(w) * h, 0)};
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const int32_t sx = left + x, sy = top + y;
      if (sx >= 0 && sx < p.w && sy >= 0 && sy < p.h) o.v[size_t(y) * w + x] = p.at(sx, sy);
    }
  return o;
}

// Every bit offset of source and destination for the packed depths, and
// each depth once, against the pixel reference.
TEST_F(OrientTest, RectangleCopiesAtEveryBitOffset) {
  struct Case { int32_t left, top, w, h; };
  for (int32_t bits : kDepths)
    for (Store s : stores_for(bits)) {
      SCOPED_TRACE(std::to_string(bits) + " bits " + name(s));
      BitmapHandle src = make(s, 33, 7, bits, uint32_t(bits));
      const Pixels p = pixels_of(&src);
      std::vector<Case> cases = {{-3, -2, 40, 12}, {5, 1, 1, 1}, {30, 6, 9, 4}, {0, 0, 33, 7}};
      if (bits <= 4 || bits == 12)
        for (int32_t l = -9; l <= 9; ++l) cases.push_back({l, 1, 17 + (l & 3), 3});
      for (const Case& c : cases) {
        BitmapHandle dst;
        ASSERT_EQ(V_CopyBitmapRect(&dst, &src, c.left, c.top, c.w, c.h), RESULT_OK) << c.left;
        ASSERT_EQ(pixels_of(&dst), crop(p, c.left, c.top, c.w, c.h)) << c.left << "," << c.top;
        EXPECT_EQ((dst.Flags & BITMAP_COMPRESSED) != 0, s == Store::compressed);
        V_FreeBitmap(&dst);
      }
      EXPECT_EQ(pixels_of(&src), p);
      V_FreeBitmap(&src);
    }
}

TEST_F(OrientTest, TrimClipsAndWorksInPlace) {
  BitmapHandle b = make(Store::memory, 100, 10, 8);
  const Pixels p = pixels_of(&b);
  ASSERT_EQ(V_TrimBitmap(&b, -10, 2, 30, 100), RESULT_OK);
  EXPECT_EQ(b.Width, 20);
  EXPECT_EQ(b.Height, 8);
  EXPECT_EQ(pixels_of(&b), crop(p, 0, 2, 20, 8));
  // A null destination trims the source in place, without clipping the size.
  ASSERT_EQ(V_CopyBitmapRect(nullptr, &b, 10, 0, 20, 8), RESULT_OK);
  EXPECT_EQ(pixels_of(&b), crop(crop(p, 0, 2, 20, 8), 10, 0, 20, 8));
  // An empty clipped rectangle is refused and changes nothing.
  const Snapshot snap(&b);
  EXPECT_EQ(V_TrimBitmap(&b, 20, 0, 5, 5), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CopyBitmapRect(nullptr, &b, -5, 0, 5, 5), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CopyBitmapRect(nullptr, &b, 0, 0, 0, 5), RESULT_BAD_PARAMETER);
  EXPECT_TRUE(snap.unchanged());
  V_FreeBitmap(&b);
}

TEST_F(OrientTest, RectangleCopyIntoAnyMemoryType) {
  BitmapHandle src = make(Store::memory, 40, 30, 24), dst;
  for (int32_t type : {TYPE_CONVENTIONAL, TYPE_DISK, TYPE_TILED}) {
    if (type == TYPE_TILED) tiny_tiles(64, 2);
    ASSERT_EQ(V_CopyBitmapRect2(&dst, &src, 3, 4, 30, 20, type), RESULT_OK);
    V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31);
    EXPECT_EQ(memory_type(&dst) & type, type);
    EXPECT_EQ(pixels_of(&dst), crop(pixels_of(&src), 3, 4, 30, 20)) << type;
    V_FreeBitmap(&dst);
  }
  V_FreeBitmap(&src);
}

VKT_SWEEPS(V_CopyBitmapRect, V_CopyBitmapRect2, V_TrimBitmap);

TEST_F(OrientTest, FailedOrCancelledRectangleCopiesLeaveEverythingAsItWas) {
  for (Store s : {Store::memory, Store::disk, Store::tiles, Store::compressed})
    for (int mode = 0; mode < 3; ++mode) {
      SCOPED_TRACE(std::string(name(s)) + " mode " + std::to_string(mode));
      BitmapHandle b, dst;
      std::unique_ptr<Snapshot> snap;
      auto run = [&] {
        std::memset(&dst, 0x5A, sizeof dst);
        if (mode == 0) return V_TrimBitmap(&b, 3, 2, 20, 5);
        if (mode == 1) return V_CopyBitmapRect(&dst, &b, -4, 1, 30, 9);
        return V_CopyBitmapRect2(nullptr, &b, 2, 0, 9, 9, TYPE_DISK);
      };
      fault_sweep(
          [&] {
            b = make(s, 33, 9, s == Store::compressed ? 1 : 4);
            snap = std::make_unique<Snapshot>(&b);
          },
          run,
          [&](const SweepRun& r) {
            if (r.result != RESULT_OK) {
              EXPECT_TRUE(snap->unchanged());
              EXPECT_EQ(dst.Width, 0x5A5A5A5A) << "destination untouched";
            } else if (mode == 1) {
              V_FreeBitmap(&dst);
            }
            snap.reset();
            V_FreeBitmap(&b);
          });
      // Refused by the copy status callback half way.
      b = make(s, 33, 9, s == Store::compressed ? 1 : 4);
      const Snapshot before(&b);
      V_SetCopyStatusCallBack([](int32_t percent, intptr_t) -> int32_t { return percent > 40 ? 7 : RESULT_OK; }, 0);
      EXPECT_EQ(run(), 7);
      V_SetCopyStatusCallBack(nullptr, 0);
      EXPECT_TRUE(before.unchanged());
      V_FreeBitmap(&b);
    }
}

}  // namespace
