// Optimised palette: the histogram's halving rule, the popularity threshold,
// variance splitting, the sorted output with its match table, and the exact
// colour paths of the public call.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core.h"
#include "optimize.h"
#include "reduce_fixtures.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_CreateOptimizedPalette);

namespace {

using vk::opt::Histogram;

struct Cell {
  uint32_t r5, g5, b5, count;
};

uint32_t key(const Cell& c) { return (c.r5 << 10) | (c.g5 << 5) | c.b5; }

void fill(Histogram& h, const std::vector<Cell>& cells) {
  for (const Cell& c : cells)
    for (uint32_t i = 0; i < c.count; ++i) h.add(key(c));
}

std::vector<uint32_t> blues(const RGBQUAD* p, uint32_t n) {
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < n; ++i) out.push_back(p[i].rgbBlue);
  return out;
}

TEST(OptimizeHistogram, HalvesEveryCountWhenACellIsFull) {
  Histogram h;
  ASSERT_TRUE(h.allocate());
  const uint32_t full = 0x1234, other = 7;
  for (int i = 0; i < 3; ++i) h.add(other);
  for (uint32_t i = 0; i < vk::opt::kCountLimit; ++i) h.add(full);
  EXPECT_EQ(h.counts[full], 32768u);
  EXPECT_EQ(h.counts[other], 3u);
  h.add(full);
  EXPECT_EQ(h.counts[full], 16385u);
  EXPECT_EQ(h.counts[other], 2u);  // (3 + 1) >> 1
  // Cells are listed once, in order of first appearance.
  ASSERT_EQ(h.used, 2u);
  EXPECT_EQ(h.cells[0], other);
  EXPECT_EQ(h.cells[1], full);
}

// A dominant cell A between two rare ones: blue 5-bit values 2 (A), 0 and 6.
const std::vector<Cell> kDominant = {{0, 0, 2, 1000}, {0, 0, 0, 10}, {0, 0, 6, 10}};

TEST(OptimizeQuantise, PopularityOnlyFromSixtyFourColoursOrWithFewPopular) {
  struct Case {
    uint32_t n;
    bool few;
    std::vector<uint32_t> expect;
  };
  const Case cases[] = {
      // Split at the blue mean 2: {A, 0} (mean 1 -> 8) and {6} (-> 49).
      {2, false, {8, 49}},
      // A gets an entry of its own (2 -> 16); the rest share mean 3 (-> 24).
      {2, true, {16, 24}},
      // Enough boxes for every cell either way.
      {63, false, {0, 16, 49}},
      {64, false, {0, 16, 49}},
  };
  for (const Case& c : cases) {
    Histogram h;
    ASSERT_TRUE(h.allocate());
    fill(h, kDominant);
    RGBQUAD pal[256] = {};
    uint32_t produced = 0;
    ASSERT_EQ(vk::opt::quantise(h, c.n, c.few, pal, &produced, nullptr), RESULT_OK);
    EXPECT_EQ(blues(pal, produced), c.expect) << "n " << c.n << " few " << c.few;
  }
}

TEST(OptimizeQuantise, SingleCellBoxesAreNeverSplit) {
  for (uint32_t cells : {1u, 2u, 5u}) {
    Histogram h;
    ASSERT_TRUE(h.allocate());
    for (uint32_t i = 0; i < cells; ++i)
      for (int k = 0; k < 1000; ++k) h.add(i * 3);
    RGBQUAD pal[256] = {};
    uint32_t produced = 0;
    ASSERT_EQ(vk::opt::quantise(h, 256, false, pal, &produced, nullptr), RESULT_OK);
    EXPECT_EQ(produced, cells);
  }
}

TEST(OptimizeQuantise, SplitsAlongTheWidestAxisAndSortsWithTheTable) {
  // Green varies most: red 1 everywhere, green 0/30, blue 4/5.
  Histogram h;
  ASSERT_TRUE(h.allocate());
  const std::vector<Cell> cells = {{1, 30, 4, 40}, {1, 0, 5, 40}, {1, 30, 5, 40}, {1, 0, 4, 40}};
  fill(h, cells);
  RGBQUAD pal[4] = {};
  uint32_t produced = 0;
  uint32_t* table = nullptr;
  ASSERT_EQ(vk::opt::quantise(h, 2, false, pal, &produced, &table), RESULT_OK);
  ASSERT_EQ(produced, 2u);
  ASSERT_NE(table, nullptr);
  // Two green halves; blue mean 4 in each (4.5 truncated -> (4 << 3) | 1 = 33).
  const uint8_t expect_green[2] = {0, 247};  // 0 and (30 << 3) | (30 >> 2)
  for (uint32_t i = 0; i < 2; ++i) {
    EXPECT_EQ(pal[i].rgbRed, 8);
    EXPECT_EQ(pal[i].rgbGreen, expect_green[i]);
    EXPECT_EQ(pal[i].rgbBlue, 33);
    EXPECT_EQ(pal[i].rgbReserved, 0);
  }
  // Every seen cell names its entry (position + 1); unseen cells stay 0.
  for (const Cell& c : cells) EXPECT_EQ(table[key(c)], c.g5 == 0 ? 1u : 2u);
  uint32_t nonzero = 0;
  for (uint32_t i = 0; i < vk::kColorCells; ++i) nonzero += table[i] != 0;
  EXPECT_EQ(nonzero, 4u);
  V_Free(table);
}

TEST(OptimizeQuantise, LargestVarianceBoxIsSplitFirst) {
  // Box after the first (red) split: a wide pair on blue and a narrow pair.
  Histogram h;
  ASSERT_TRUE(h.allocate());
  fill(h, {{0, 0, 0, 10}, {0, 0, 31, 10}, {31, 0, 0, 10}, {31, 0, 1, 10}});
  RGBQUAD pal[4] = {};
  uint32_t produced = 0;
  ASSERT_EQ(vk::opt::quantise(h, 3, false, pal, &produced, nullptr), RESULT_OK);
  ASSERT_EQ(produced, 3u);
  // Red splits first (variance 240 vs blue's); then the red-0 box (blue
  // variance 225) splits, the red-31 pair (variance 0) stays whole.
  EXPECT_EQ(pal[0].rgbRed, 0);
  EXPECT_EQ(pal[0].rgbBlue, 0);
  EXPECT_EQ(pal[1].rgbRed, 0);
  EXPECT_EQ(pal[1].rgbBlue, 255);
  EXPECT_EQ(pal[2].rgbRed, 255);
  EXPECT_EQ(pal[2].rgbBlue, 0);
}

// ---- through the public call ---------------------------------------------------

TEST(OptimizedPalette, SmallPaletteSourceKeepsItsOwnEntriesUnsorted) {
  vkt::Bitmap b(8, 2, 8);
  {
    RGBQUAD pal[4];
    uint32_t n = 0;
    int32_t needs = 0;
    EXPECT_EQ(V_CreateOptimizedPalette(nullptr, pal, &n, nullptr, &needs, 0), RESULT_NO_BITMAP);
    EXPECT_EQ(V_CreateOptimizedPalette(b.get(), pal, &n, nullptr, &needs, 0), RESULT_BAD_PARAMETER);  // 0 colours
  }
  std::vector<RGBQUAD> own(16);
  for (int i = 0; i < 16; ++i) own[i] = RGBQUAD{uint8_t(200 - i * 10), uint8_t(i), uint8_t(255 - i * 7), 0};
  b.set_palette(own);
  RGBQUAD pal[256];
  std::memset(pal, 0xEE, sizeof pal);
  uint32_t n = 256;
  int32_t needs = 5;
  uint32_t* table = reinterpret_cast<uint32_t*>(uintptr_t{1});
  ASSERT_EQ(V_CreateOptimizedPalette(b.get(), pal, &n, &table, &needs, 0), RESULT_OK);
  EXPECT_EQ(n, 16u);
  EXPECT_EQ(needs, 0);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(std::memcmp(pal, own.data(), 16 * sizeof(RGBQUAD)), 0);
  EXPECT_EQ(pal[16].rgbRed, 0);  // cleared past the entries
}

TEST(OptimizedPalette, FewDistinctColoursComeBackSorted) {
  vkt::Bitmap b(10, 3, 24);
  // Ten colours in descending red, stored BGR.
  b.fill([](int x, int y) { return vkt::Rgb{uint8_t(250 - 20 * ((x + y) % 10)), 5, 77}; });
  RGBQUAD pal[16] = {};
  uint32_t n = 16;
  int32_t needs = 5;
  ASSERT_EQ(V_CreateOptimizedPalette(b.get(), pal, &n, nullptr, &needs, 0), RESULT_OK);
  EXPECT_EQ(n, 10u);
  EXPECT_EQ(needs, 0);
  for (uint32_t i = 0; i + 1 < n; ++i) EXPECT_LT(pal[i].rgbRed, pal[i + 1].rgbRed);
  EXPECT_EQ(pal[0].rgbRed, 70);
  EXPECT_EQ(pal[9].rgbRed, 250);
}

// Many colours: quantised, with a table that sends every colour of the image
// to a nearby entry.  Every allocation failing in turn frees everything.
TEST(OptimizedPalette, QuantisesWithATableAndSurvivesFailures) {
  vkt::Bitmap b(64, 64, 24);
  b.fill([](int x, int y) { return vkt::Rgb{uint8_t(x * 4), uint8_t(y * 4), uint8_t((x ^ y) * 4)}; });
  RGBQUAD pal[256];
  uint32_t n = 0;
  int32_t needs = 0;
  uint32_t* table = nullptr;
  vkt::fault_sweep([&] { std::memset(pal, 0, sizeof pal), n = 256, needs = 0, table = nullptr; },
                   [&] { return V_CreateOptimizedPalette(b.get(), pal, &n, &table, &needs, 0); },
                   [&](const vkt::SweepRun& run) {
                     if (run.result != RESULT_OK) {
                       EXPECT_EQ(run.result, RESULT_FAIL);
                       EXPECT_EQ(table, nullptr);
                       return;
                     }
                     EXPECT_EQ(needs, 1);
                     EXPECT_EQ(n, 256u);
                     ASSERT_NE(table, nullptr);
                     for (int y = 0; y < 64; y += 7)
                       for (int x = 0; x < 64; x += 5) {
                         const int c[3] = {x * 4, y * 4, (x ^ y) * 4};
                         const uint32_t e = table[((c[0] >> 3) << 10) | ((c[1] >> 3) << 5) | (c[2] >> 3)];
                         ASSERT_GE(e, 1u);
                         const RGBQUAD& p = pal[e - 1];
                         EXPECT_LE(std::abs(p.rgbRed - c[0]) + std::abs(p.rgbGreen - c[1]) + std::abs(p.rgbBlue - c[2]),
                                   120);
                       }
                     V_Free(table);
                   });
}

TEST(OptimizedPalette, ListSharesOneHistogram) {
  BitmapList list = nullptr;
  ASSERT_EQ(V_CreateBitmapList(&list), RESULT_OK);
  for (int k = 0; k < 3; ++k) {
    vkt::Bitmap b(5, 1, 24);
    b.fill([k](int x, int) { return vkt::Rgb{uint8_t(k * 50 + x), 0, 0}; });
    BitmapHandle h = b.release();
    ASSERT_EQ(V_InsertBitmapListItem(list, 99, &h), RESULT_OK);
  }
  RGBQUAD pal[256];
  uint32_t n = 256;
  int32_t needs = 5;
  ASSERT_EQ(V_CreateBitmapListOptPal(list, pal, &n, nullptr, &needs, 0), RESULT_OK);
  EXPECT_EQ(n, 15u);  // the union of three times five colours, exact
  EXPECT_EQ(needs, 0);
  n = 8;
  ASSERT_EQ(V_CreateBitmapListOptPal(list, pal, &n, nullptr, &needs, 0), RESULT_OK);
  EXPECT_EQ(needs, 1);
  EXPECT_EQ(n, 4u);  // one entry per 5-5-5 cell: red >> 3 is 0, 6, 12 or 13
  EXPECT_EQ(V_DestroyBitmapList(list), RESULT_OK);
}

}  // namespace
