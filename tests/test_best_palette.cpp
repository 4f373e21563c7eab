// Best palette: the exact-colours shortcut, every source depth read alike,
// entries around fixed ones, lists sharing one histogram, the golden palette
// that must match in every build, and the all-or-nothing rule under
// allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "color_helpers.h"
#include "core.h"
#include "fault_sweep.h"
#include "reduce_fixtures.h"

VKT_SWEEPS(V_CreateBestPalette, V_CreateBitmapListBestPal);

namespace {

using vkt::Rgb;
using Pixels = std::vector<Rgb>;  // width x height, row by row

struct Image {
  int32_t w, h;
  Pixels px;
};

Image make(int32_t w, int32_t h, Rgb (*f)(int, int)) {
  Image im{w, h, {}};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) im.px.push_back(f(x, y));
  return im;
}

// The image stored at a given depth (BGR orders; 1-8 bits through a palette
// of its distinct colours, which must fit).
BitmapHandle store(const Image& im, int32_t bits) {
  BitmapHandle b{};
  EXPECT_EQ(V_InitBitmap(&b, im.w, im.h, bits), RESULT_OK);
  EXPECT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  b.Order = bits <= 8 ? b.Order : ORDER_BGR;
  std::vector<RGBQUAD> pal;
  auto index_of = [&](const Rgb& c) {
    for (size_t i = 0; i < pal.size(); ++i)
      if (pal[i].rgbRed == c.r && pal[i].rgbGreen == c.g && pal[i].rgbBlue == c.b) return uint32_t(i);
    pal.push_back(RGBQUAD{c.b, c.g, c.r, 0});
    return uint32_t(pal.size() - 1);
  };
  for (int y = 0; y < im.h; ++y) {
    std::vector<uint8_t> row(b.BytesPerLine + 2);
    for (int x = 0; x < im.w; ++x) {
      const Rgb c = im.px[size_t(y) * im.w + x];
      uint8_t* p = row.data();
      switch (bits) {
        case 16: {
          const uint32_t v = uint32_t(c.r >> 3) << 10 | uint32_t(c.g >> 3) << 5 | uint32_t(c.b >> 3);
          p[2 * x] = uint8_t(v), p[2 * x + 1] = uint8_t(v >> 8);
          break;
        }
        case 24: p[3 * x] = c.b, p[3 * x + 1] = c.g, p[3 * x + 2] = c.r; break;
        case 32: p[4 * x] = c.b, p[4 * x + 1] = c.g, p[4 * x + 2] = c.r; break;
        case 48:
        case 64: {
          const int step = bits / 8;
          const uint8_t ch[3] = {c.b, c.g, c.r};
          for (int k = 0; k < 3; ++k) p[step * x + 2 * k] = ch[k], p[step * x + 2 * k + 1] = ch[k];  // v x 257
          break;
        }
        default: {
          const uint32_t bit = uint32_t(x) * bits, word = index_of(c) << (16 - bits - (bit & 7));
          p[bit >> 3] |= uint8_t(word >> 8), p[(bit >> 3) + 1] |= uint8_t(word);
        }
      }
    }
    EXPECT_GE(V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(b.BytesPerLine)), 0);
  }
  if (bits <= 8) {
    EXPECT_LE(pal.size(), size_t(1) << bits);
    b.Flags |= PALETTE_IS_TABLE;
    V_CreateBitmapPalette(&b, pal.data(), int32_t(pal.size()));
  }
  return b;
}

struct Result {
  int32_t code;
  std::vector<RGBQUAD> pal;
  int32_t needs;
};

Result best(BitmapHandle* b, uint32_t n, const std::vector<RGBQUAD>& fixed = {}) {
  Result r{0, std::vector<RGBQUAD>(n), -1};
  uint32_t colors = n;
  r.code = V_CreateBestPalette(b, fixed.data(), uint32_t(fixed.size()), r.pal.data(), &colors, &r.needs);
  r.pal.resize(colors);
  return r;
}

bool same(const std::vector<RGBQUAD>& a, const std::vector<RGBQUAD>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(RGBQUAD)) == 0;
}

// Colours every depth holds exactly: channels widened from 5-bit fields.
uint8_t c5(int f) { return uint8_t(((f & 31) << 3) | ((f & 31) >> 2)); }
Rgb mosaic(int x, int y) { return Rgb{c5(x * 3 + y), c5(y * 5), c5(x ^ y)}; }

TEST(BestPalette, ArgumentChecks) {
  vkt::Bitmap b(4, 4, 24);
  RGBQUAD pal[256];
  uint32_t colors = 4;
  int32_t needs = 0;
  const RGBQUAD fixed[1] = {};
  const struct {
    RGBQUAD* pal;
    uint32_t colors;
    int32_t* needs;
    const RGBQUAD* fixed;
    uint32_t fixed_count;
  } bad[] = {{nullptr, 4, &needs, nullptr, 0}, {pal, 0, &needs, nullptr, 0}, {pal, 257, &needs, nullptr, 0},
             {pal, 4, nullptr, nullptr, 0},    {pal, 4, &needs, nullptr, 1}, {pal, 4, &needs, fixed, 257}};
  for (const auto& c : bad) {
    colors = c.colors;
    EXPECT_EQ(V_CreateBestPalette(b.get(), c.fixed, c.fixed_count, c.pal, &colors, c.needs), RESULT_BAD_PARAMETER);
  }
  colors = 4;
  EXPECT_EQ(V_CreateBestPalette(nullptr, nullptr, 0, pal, &colors, &needs), RESULT_NO_BITMAP);
  // The status callback's refusal stops the row loop and is returned.
  vkt::fill_random(b.get(), 7);
  vkt::StatusRecorder status;
  status.refuse_at = 0;
  EXPECT_EQ(V_CreateBestPalette(b.get(), nullptr, 0, pal, &colors, &needs), 77);
  EXPECT_EQ(V_CreateBitmapListBestPal(nullptr, nullptr, 0, pal, &colors, &needs), RESULT_BAD_PARAMETER);
}

// At most n distinct colours give exactly those, sorted, at every depth
// (rows are read through the row conversion, so no depth is read apart);
// a two-colour image asked for two colours gives those two.  How the
// entries are placed otherwise is pinned by the golden palettes below.
TEST(BestPalette, ExactColoursAtEveryDepth) {
  const Image two = make(33, 3, [](int x, int y) { return (x + y) % 3 ? Rgb{255, 0, 0} : Rgb{0, 255, 255}; });
  const Image ten = make(31, 2, [](int x, int) { return Rgb{c5(31 - 3 * (x % 10)), c5(4), c5(9)}; });
  const struct {
    const Image* im;
    uint32_t n;
    uint32_t expect;
  } cases[] = {{&two, 2, 2}, {&two, 256, 2}, {&ten, 10, 10}, {&ten, 16, 10}};
  for (const auto& c : cases)
    for (int32_t bits : {1, 4, 8, 16, 24, 32, 48, 64}) {
      if (bits < 4 && c.expect > 2) continue;
      SCOPED_TRACE(testing::Message() << "bits " << bits << " n " << c.n);
      BitmapHandle b = store(*c.im, bits);
      const Result r = best(&b, c.n);
      ASSERT_EQ(r.code, RESULT_OK);
      EXPECT_EQ(r.needs, 0);
      ASSERT_EQ(r.pal.size(), c.expect);
      for (size_t i = 0; i + 1 < r.pal.size(); ++i) EXPECT_LT(r.pal[i].rgbRed, r.pal[i + 1].rgbRed);
      if (c.im == &two) {
        EXPECT_TRUE(vkt::same_rgb(r.pal[0], vkt::quad(0, 255, 255)));
        EXPECT_TRUE(vkt::same_rgb(r.pal[1], vkt::quad(255, 0, 0)));
      }
      V_FreeBitmap(&b);
    }
}

// 1024 grays, stored with 16 bits per channel: 256 levels at 8 bits, which
// all fit; fewer entries are spread evenly with none wasted.
TEST(BestPalette, GrayGradientSpreadsEntriesEvenly) {
  BitmapHandle b{};
  ASSERT_EQ(V_InitBitmap(&b, 1024, 2, 48), RESULT_OK);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  b.Order = ORDER_BGR;
  std::vector<uint8_t> row(b.BytesPerLine);
  for (int x = 0; x < 1024; ++x)
    for (int k = 0; k < 3; ++k) row[6 * x + 2 * k] = uint8_t(x << 6), row[6 * x + 2 * k + 1] = uint8_t(x >> 2);
  for (uint32_t y = 0; y < 2; ++y) V_PutBitmapRow(&b, row.data(), y, int32_t(b.BytesPerLine));
  for (uint32_t n : {256u, 64u, 16u, 2u}) {
    SCOPED_TRACE(n);
    const Result r = best(&b, n);
    ASSERT_EQ(r.code, RESULT_OK);
    ASSERT_EQ(r.pal.size(), n);
    EXPECT_EQ(r.needs, n == 256 ? 0 : 1);
    const int step = 256 / int(n);
    EXPECT_LE(r.pal[0].rgbRed, step);
    EXPECT_GE(r.pal[n - 1].rgbRed, 255 - step);
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_EQ(r.pal[i].rgbGreen, r.pal[i].rgbRed);
      EXPECT_EQ(r.pal[i].rgbBlue, r.pal[i].rgbRed);
      if (i == 0) continue;
      const int gap = r.pal[i].rgbRed - r.pal[i - 1].rgbRed;
      EXPECT_GE(gap, step - (step + 3) / 4) << i;
      EXPECT_LE(gap, step + (step + 3) / 4) << i;
    }
  }
  V_FreeBitmap(&b);
}

// A large smooth sky and a small spot of saturated colours: the sky's error
// outweighs the spot's, so it gets most of the entries.
TEST(BestPalette, LargeSmoothAreaGetsMoreEntriesThanSmallSpot) {
  const Image im = make(160, 120, [](int x, int y) {
    if (x >= 70 && x < 80 && y >= 50 && y < 60) return Rgb{255, uint8_t(x * 25 % 256), uint8_t(y * 40 % 256)};
    return Rgb{uint8_t(60 + x / 4), uint8_t(120 + y / 3), uint8_t(200 + (x + y) / 10)};
  });
  BitmapHandle b = store(im, 24);
  const Result r = best(&b, 16);
  ASSERT_EQ(r.code, RESULT_OK);
  uint32_t sky = 0, spot = 0;
  for (const RGBQUAD& q : r.pal) (q.rgbRed >= 200 ? spot : sky)++;
  EXPECT_GE(sky, 12u);
  EXPECT_GE(spot, 1u);
  V_FreeBitmap(&b);
}

// Fixed entries stay and the chosen colours serve the rest: with black kept,
// the one free entry goes to the light half rather than between the halves.
TEST(BestPalette, ChosenColoursComplementFixedEntries) {
  const Image im = make(40, 20, [](int x, int y) {
    const uint8_t v = uint8_t((x * 7 + y * 3) % 20);
    return x < 20 ? Rgb{v, v, v} : Rgb{uint8_t(230 + v), uint8_t(230 + v), uint8_t(230 + v)};
  });
  BitmapHandle b = store(im, 24);
  const struct {
    std::vector<RGBQUAD> fixed;
    int lo, hi;
  } cases[] = {
      {{}, 100, 150},                                // the mean of both halves
      {{vkt::quad(0, 0, 0)}, 230, 250},              // black serves the dark half
      {{vkt::quad(0, 0, 0, 1)}, 100, 150},           // not matchable: it serves nothing
  };
  for (const auto& c : cases) {
    const Result r = best(&b, 1, c.fixed);
    ASSERT_EQ(r.code, RESULT_OK);
    ASSERT_EQ(r.pal.size(), 1u);
    EXPECT_GE(r.pal[0].rgbRed, c.lo);
    EXPECT_LE(r.pal[0].rgbRed, c.hi);
  }
  V_FreeBitmap(&b);
}

// Through colour resolution: the caller's fixed entries keep their places,
// the free ones are filled, and a destination pixel is never a fixed entry
// that matching must skip.
TEST(BestPalette, ColourResolutionKeepsReservedEntries) {
  const Image im = make(48, 32, mosaic);
  BitmapHandle b = store(im, 24);
  RGBQUAD given[16];
  for (int i = 0; i < 16; ++i) given[i] = vkt::quad(0, 0, 0, 2);
  given[0] = vkt::quad(0, 0, 0);
  given[5] = vkt::quad(255, 255, 255);
  given[9] = vkt::quad(1, 2, 3, 1);
  b.DitheringMethod = DITHER_FLOYD_STEINBERG;
  ASSERT_EQ(V_ColorResBitmap(&b, &b, 4, RESOLVE_BEST_PALETTE, given, nullptr, 16, nullptr, 0), RESULT_OK);
  ASSERT_EQ(b.ColorCount, 16u);
  RGBQUAD got[16];
  V_GetBitmapPaletteEntries(&b, 0, 16, got);
  for (int i : {0, 5, 9}) EXPECT_EQ(std::memcmp(&got[i], &given[i], sizeof(RGBQUAD)), 0) << i;
  for (int i = 0; i < 16; ++i)
    if (i != 0 && i != 5 && i != 9) EXPECT_EQ(got[i].rgbReserved, 0) << i;
  const std::vector<uint8_t> px = vkt::read_pixels(&b);
  for (int y = 0; y < b.Height; ++y)
    for (int x = 0; x < b.Width; ++x) {
      const uint8_t v = px[size_t(y) * b.BytesPerLine + x / 2];
      EXPECT_NE((x & 1) ? (v & 15) : (v >> 4), 9);
    }
  V_FreeBitmap(&b);
}

// One histogram for a list: three items give the palette of one image made
// of all three, and colour resolution leaves them with that same palette.
TEST(BestPalette, ListOfThreeSharesOnePalette) {
  Rgb (*parts[3])(int, int) = {
      [](int x, int y) { return Rgb{uint8_t(x * 5), uint8_t(y * 9), 40}; },
      [](int x, int y) { return Rgb{200, uint8_t(x * y), uint8_t(y * 7)}; },
      [](int x, int y) { return Rgb{uint8_t(x ^ y), 90, uint8_t(x * 3 + y)}; },
  };
  BitmapList list = nullptr;
  ASSERT_EQ(V_CreateBitmapList(&list), RESULT_OK);
  Image all{40, 0, {}};
  for (auto* f : parts) {
    const Image im = make(40, 25, f);
    all.px.insert(all.px.end(), im.px.begin(), im.px.end());
    all.h += im.h;
    BitmapHandle b = store(im, 24);
    ASSERT_EQ(V_InsertBitmapListItem(list, 99, &b), RESULT_OK);
  }
  BitmapHandle whole = store(all, 24);
  const Result want = best(&whole, 32);
  V_FreeBitmap(&whole);
  std::vector<RGBQUAD> pal(32);
  uint32_t colors = 32;
  int32_t needs = 0;
  ASSERT_EQ(V_CreateBitmapListBestPal(list, nullptr, 0, pal.data(), &colors, &needs), RESULT_OK);
  pal.resize(colors);
  EXPECT_TRUE(same(pal, want.pal));

  ASSERT_EQ(V_ColorResBitmapList(list, 8, RESOLVE_BEST_PALETTE, nullptr, nullptr, 32), RESULT_OK);
  for (uint32_t i = 0; i < 3; ++i) {
    BitmapHandle item;
    ASSERT_EQ(V_GetBitmapListItem(list, i, &item), RESULT_OK);
    std::vector<RGBQUAD> got(item.ColorCount);
    V_GetBitmapPaletteEntries(&item, 0, int32_t(got.size()), got.data());
    EXPECT_TRUE(same(got, want.pal)) << i;
  }
  EXPECT_EQ(V_DestroyBitmapList(list), RESULT_OK);
}

// The palette is pinned: 64-bit, 32-bit and sanitizer builds must all give
// these checksums (FNV-1a over the entries).
TEST(BestPalette, GoldenPalettes) {
  const Image im = make(97, 61, [](int x, int y) {
    return Rgb{uint8_t(x * 2 + y), uint8_t((x * y) >> 3), uint8_t(255 - y * 4 + (x & 7))};
  });
  BitmapHandle b = store(im, 24);
  const struct {
    uint32_t n;
    uint32_t fnv;
  } golden[] = {{256, 617185428u}, {64, 208552375u}, {16, 3285959492u}, {2, 1788581304u}};
  for (const auto& g : golden) {
    const Result r = best(&b, g.n);
    ASSERT_EQ(r.code, RESULT_OK);
    uint32_t h = 2166136261u;
    for (const RGBQUAD& q : r.pal)
      for (uint8_t v : {q.rgbBlue, q.rgbGreen, q.rgbRed, q.rgbReserved}) h = (h ^ v) * 16777619u;
    EXPECT_EQ(h, g.fnv) << "n " << g.n << " entries " << r.pal.size();
  }
  V_FreeBitmap(&b);
}

// Every allocation failing in turn: the palette call, and colour resolution
// of a bitmap and of a list, leave the bitmaps and the thread's match table
// as they were and nothing behind.
TEST(BestPalette, AllocationFailuresChangeNothing) {
  const Image im = make(45, 17, mosaic);
  std::vector<uint32_t> table(32768, 0);
  table[100] = 3;
  const std::vector<uint32_t> table_before = table;
  uint32_t* saved = V_SetUserMatchTable(table.data());

  const struct {
    const char* name;
    int32_t (*run)(BitmapHandle* b, BitmapList l);
  } ops[] = {
      {"palette", [](BitmapHandle* b, BitmapList) {
         RGBQUAD pal[16];
         uint32_t colors = 16;
         int32_t needs = 0;
         return V_CreateBestPalette(b, nullptr, 0, pal, &colors, &needs);
       }},
      {"list palette", [](BitmapHandle*, BitmapList l) {
         RGBQUAD pal[16];
         uint32_t colors = 16;
         int32_t needs = 0;
         return V_CreateBitmapListBestPal(l, nullptr, 0, pal, &colors, &needs);
       }},
      {"resolve", [](BitmapHandle* b, BitmapList) {
         return V_ColorResBitmap(b, b, 4, RESOLVE_BEST_PALETTE, nullptr, nullptr, 16, nullptr, 0);
       }},
      {"resolve list", [](BitmapHandle*, BitmapList l) {
         return V_ColorResBitmapList(l, 8, RESOLVE_BEST_PALETTE, nullptr, nullptr, 64);
       }},
  };
  for (const auto& op : ops) {
    SCOPED_TRACE(op.name);
    BitmapHandle b{};
    BitmapList l = nullptr;
    std::vector<uint8_t> before;
    vkt::fault_sweep(
        [&] {
          b = store(im, 24);
          before = vkt::Snapshot::pixels(&b);
          V_CreateBitmapList(&l);
          BitmapHandle item = store(im, 24);
          V_InsertBitmapListItem(l, 0, &item);
        },
        [&] {
          const BitmapHandle record = b;
          const int32_t r = op.run(&b, l);
          if (r != RESULT_OK) EXPECT_EQ(std::memcmp(&record, &b, sizeof b), 0);
          return r;
        },
        [&](const vkt::SweepRun& run) {
          if (run.result != RESULT_OK) {
            EXPECT_EQ(run.result, RESULT_FAIL);
            EXPECT_EQ(vkt::Snapshot::pixels(&b), before);
            BitmapHandle item;
            V_GetBitmapListItem(l, 0, &item);
            EXPECT_EQ(vkt::Snapshot::pixels(&item), before);
          }
          EXPECT_EQ(V_SetUserMatchTable(table.data()), table.data());
          EXPECT_EQ(table, table_before);
          V_FreeBitmap(&b);
          V_DestroyBitmapList(l);
        });
  }
  V_SetUserMatchTable(saved);
}

}  // namespace
